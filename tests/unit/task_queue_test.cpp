// Handing work to the loop thread, and timers, on the real loop.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "../loop.h"
#include "base/files.h"
#include "base/task_queue.h"
#include "base/text.h"

namespace arvok {
namespace {

// Waits for another thread, at the latest ten seconds.
template <typename Condition>
bool eventually(Condition holds) {
    for (int i = 0; i < 10000 && !holds(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return holds();
}

class Tasks : public ::testing::Test {
  protected:
    void SetUp() override {
        uloop_init();
        queue_ = std::make_unique<task_queue>();
    }
    void TearDown() override {
        queue_.reset();
        uloop_done();
    }
    auto record(long n) {
        return [this, n] {
            EXPECT_EQ(std::this_thread::get_id(), loop_thread_);
            ran_.push_back(n);
        };
    }
    // Runs the loop until so many tasks have run, or at the latest after ten seconds.
    void run_until(std::size_t count) {
        for (int i = 0; i < 1000 && ran_.size() < count; i++)
            run_loop_for(10);
        EXPECT_EQ(ran_.size(), count);
    }

    std::unique_ptr<task_queue> queue_;
    std::vector<long> ran_;
    const std::thread::id loop_thread_ = std::this_thread::get_id();
};

TEST_F(Tasks, ThreadsPostWithoutMixingAndEachInItsOrder) {
    constexpr long threads = 4, each = 500;
    std::vector<std::thread> posters;
    for (long t = 0; t < threads; t++)
        posters.emplace_back([t, this] {
            for (long i = 0; i < each; i++)
                EXPECT_TRUE(queue_->post(record(t * each + i)));
        });
    run_until(threads * each);
    for (std::thread &poster : posters)
        poster.join();
    std::vector<long> last(threads, -1);
    for (long n : ran_) {
        EXPECT_GT(n, last[static_cast<std::size_t>(n / each)]);
        last[static_cast<std::size_t>(n / each)] = n;
    }
}

// Tasks own what they captured: each is let go once, whether it runs, is refused, or is still queued at the
// end.
TEST_F(Tasks, AFullPipeIsReportedAndEverythingIsReleased) {
    const auto owned = std::make_shared<int>();
    std::size_t posted = 0;
    const auto post = [&] { return queue_->post([this, owned] { record(0)(); }); };
    ::testing::internal::CaptureStderr();
    while (post())
        posted++;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[ERROR] utask_set write pipe failed\n");
    EXPECT_EQ(owned.use_count(), 1 + static_cast<long>(posted));
    run_until(posted);
    EXPECT_EQ(owned.use_count(), 1);
    for (int i = 0; i < 10; i++)
        EXPECT_TRUE(post());
    queue_.reset();
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_EQ(ran_.size(), posted);
}

TEST_F(Tasks, SlowWorkRunsAsideAndCompletesOnTheLoopWhenThereIsRoom) {
    std::atomic<pid_t> aside = 0;
    ::testing::internal::CaptureStderr();
    std::size_t posted = 0;
    while (queue_->post(record(1)))
        posted++;
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(queue_->run_aside(make_task([&] { aside = gettid(); }), make_task(record(2))));
    EXPECT_TRUE(eventually([&] {  // in its wait for room
        const file_content state = read_file(format("/proc/self/task/%d/stat", aside.load()), 64);
        const auto *text = std::get_if<std::string>(&state);
        return text && contains(*text, ") S ");
    }));
    EXPECT_NE(aside, gettid());
    run_until(posted + 1);
    EXPECT_EQ(ran_.back(), 2);
}

TEST_F(Tasks, AThreadMayEndAfterTheQueue) {
    std::atomic<bool> go = false;
    const auto done = std::make_shared<std::atomic<int>>();
    const auto wait = [&go] {
        while (!go)
            std::this_thread::yield();
    };
    EXPECT_TRUE(queue_->run_aside(make_task(wait), make_task([done] { ++*done; })));
    queue_.reset();
    go = true;
    EXPECT_TRUE(eventually([&] { return done.use_count() == 1; }));
    EXPECT_EQ(*done, 0);  // released, not run
}

TEST(TaskFailures, AreFinalOrReported) {
    const auto without = [](int resource, rlim_t limit) {
        if (resource == RLIMIT_NPROC && getuid() == 0 && setuid(65534) != 0) {  // it does not bind root
            std::fputs("no other user\n", stderr);
            _exit(0);
        }
        uloop_init();
        const rlimit least{limit, limit};
        setrlimit(resource, &least);
        task_queue queue;
        const auto never = [] { _exit(3); };
        _exit(queue.run_aside(make_task(never), make_task(never)) ? 2 : 0);
    };
    EXPECT_EXIT(without(RLIMIT_NOFILE, 3), ::testing::ExitedWithCode(1), "\\[ERROR\\] open pipe failed\n");
    // One more thread than the user may have.
    EXPECT_EXIT(without(RLIMIT_NPROC, 0), ::testing::ExitedWithCode(0),
                "\\[ERROR\\] create pthread failed\n|no other user\n");
}

struct clockwork {
    timer ticks{bind<&clockwork::tick>(*this)};
    int ticked = 0;
    void tick() { ticked++; }
};

TEST(Timers, FireOnceForEachTimeAndNeverAfterTheirEnd) {
    uloop_init();
    clockwork one;
    auto gone = std::make_unique<clockwork>();
    EXPECT_EQ(one.ticks.remaining(), -1);
    one.ticks.arm(0);
    one.ticks.arm(100000);  // and not when it was armed for before
    gone->ticks.arm(0);
    gone.reset();
    run_loop_for(5);
    EXPECT_EQ(one.ticked, 0);
    EXPECT_TRUE(one.ticks.is_armed() && one.ticks.remaining() > 90000);
    one.ticks.arm(1);
    for (int i = 0; i < 100 && one.ticked == 0; i++)
        run_loop_for(5);
    EXPECT_FALSE(one.ticks.is_armed());
    run_loop_for(5);
    EXPECT_EQ(one.ticked, 1);
    uloop_done();
}

}  // namespace
}  // namespace arvok
