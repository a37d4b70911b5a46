// The hand-off to the loop thread, on the real loop.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

#include "utask/utask.h"

namespace arvok {
namespace {

std::vector<long> ran;
std::atomic<pthread_t> loop_thread;

std::size_t expected = 0;  // so many runs end the loop; 0: none does

void record(void *arg) {
    ASSERT_TRUE(pthread_equal(pthread_self(), loop_thread));
    ran.push_back(reinterpret_cast<long>(arg));
    if (ran.size() == expected)
        uloop_end();
}
void end(void *) {
    uloop_end();
}

void *number(long n) {
    return reinterpret_cast<void *>(n);
}

class Utask : public ::testing::Test {
  protected:
    void SetUp() override {
        ran.clear();
        expected = 0;
        loop_thread = pthread_self();
        uloop_init();
        utask_init();
        open_ = true;
    }
    void done() {
        if (open_)
            utask_done();
        open_ = false;
    }
    void TearDown() override { done(); }
    // Runs the loop until a task ends it, or at the latest after ten seconds.
    static void run() {
        uloop_timeout limit{};
        limit.cb = [](uloop_timeout *) { uloop_end(); };
        uloop_timeout_set(&limit, 10000);
        uloop_run_timeout(-1);
        uloop_timeout_cancel(&limit);
    }
    bool open_ = false;
};

TEST_F(Utask, TasksRunInTheirOrderAndANullFunctionIsDropped) {
    for (long i = 1; i <= 100; i++) {
        ASSERT_EQ(utask_set(number(i), record), 0);
        ASSERT_EQ(utask_set(number(i), nullptr), 0);
    }
    ASSERT_EQ(utask_set(nullptr, end), 0);
    run();
    ASSERT_EQ(ran.size(), 100u);
    for (long i = 0; i < 100; i++)
        EXPECT_EQ(ran[static_cast<std::size_t>(i)], i + 1);
}

TEST_F(Utask, ThreadsQueueWithoutMixing) {
    constexpr long threads = 4, each = 500;
    std::atomic<long> left{threads};
    std::vector<std::thread> writers;
    for (long t = 0; t < threads; t++)
        writers.emplace_back([t, &left] {
            for (long i = 0; i < each; i++)
                EXPECT_EQ(utask_set(number(t * each + i), record), 0);
            if (--left == 0)
                utask_set(nullptr, end);
        });
    run();
    for (std::thread &writer : writers)
        writer.join();
    EXPECT_EQ(ran.size(), static_cast<std::size_t>(threads * each));
    std::vector<long> last(threads, -1);
    for (long n : ran) {
        EXPECT_GT(n, last[static_cast<std::size_t>(n / each)]);  // each thread's own order holds
        last[static_cast<std::size_t>(n / each)] = n;
    }
}

TEST_F(Utask, AFullPipeIsReportedAndWhatFittedStillRuns) {
    long queued = 0;
    ::testing::internal::CaptureStderr();
    while (utask_set(number(queued), record) == 0)
        queued++;
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("[ERROR] utask_set write pipe failed\n"),
              std::string::npos);
    expected = static_cast<std::size_t>(queued);
    run();
    EXPECT_EQ(ran.size(), expected);
}

TEST_F(Utask, SlowWorkRunsElsewhereAndCompletesOnTheLoop) {
    static std::atomic<bool> elsewhere;
    elsewhere = false;
    const auto work = [](void *arg) {
        elsewhere = arg == number(5) && !pthread_equal(pthread_self(), loop_thread);
    };
    const auto done = [](void *arg) {
        record(arg);
        uloop_end();
    };
    ASSERT_EQ(utask_asyn_set(number(5), work, done), 0);
    run();
    EXPECT_TRUE(elsewhere);
    EXPECT_EQ(ran, std::vector<long>{5});
    ran.clear();
    ASSERT_EQ(utask_asyn_set(number(6), nullptr, done), 0);
    run();
    EXPECT_EQ(ran, std::vector<long>{6});
}

// What is queued when the process ends owns its argument: it runs once more, so that it can let go. A task
// without one could only start something anew.
TEST_F(Utask, ClosingReleasesWhatIsQueuedAndRefusesMore) {
    const auto post_itself = [](void *arg) { EXPECT_EQ(utask_set(arg, record), 0); };
    ASSERT_EQ(utask_set(number(1), record), 0);
    ASSERT_EQ(utask_set(nullptr, record), 0);
    ASSERT_EQ(utask_set(number(2), post_itself), 0);
    done();
    EXPECT_EQ(ran, std::vector<long>{1});
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(utask_set(number(2), record), -1);
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
}

std::set<int> open_descriptors() {
    std::set<int> fds;
    for (int fd = 0; fd < 256; fd++)
        if (fcntl(fd, F_GETFD) >= 0)
            fds.insert(fd);
    return fds;
}

TEST(UtaskLife, OpensTwoPrivateDescriptorsAndClosesThem) {
    const std::set<int> before = open_descriptors();
    uloop_init();
    std::size_t with_loop = open_descriptors().size();
    utask_init();
    EXPECT_EQ(open_descriptors().size(), with_loop + 2);
    for (int fd : open_descriptors()) {
        if (!before.contains(fd)) {
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
        }
    }
    utask_done();
    EXPECT_EQ(open_descriptors(), before);
}

// Exhausts a resource in a child process and expects that end of it.
void with_no(int resource, rlim_t limit, void (*act)()) {
    const rlimit none{limit, limit};
    setrlimit(resource, &none);
    act();
}

TEST(UtaskLife, FailuresAreFinalOrReported) {
    EXPECT_EXIT(with_no(RLIMIT_NOFILE, 3, utask_init), ::testing::ExitedWithCode(1),
                "\\[ERROR\\] open pipe failed\n");
    const auto start_thread = [] {
        const utask_fn never = [](void *) { _exit(3); };
        _exit(utask_asyn_set(nullptr, never, never) == -1 ? 0 : 2);
    };
    if (getuid() != 0 || setuid(65534) == 0) {
        // One more thread than the user may have.
        EXPECT_EXIT(with_no(RLIMIT_NPROC, 0, start_thread), ::testing::ExitedWithCode(0),
                    "\\[ERROR\\] create pthread failed\n");
    }
}

}  // namespace
}  // namespace arvok
