#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {
namespace {

using testing::ElementsAre;

struct Timer : uloop_timeout {
    std::function<void()> action;

    explicit Timer(std::function<void()> what = {}) : uloop_timeout{}, action(std::move(what)) {
        cb = [](uloop_timeout *timer) {
            // A copy: the action may free this timer.
            const auto act = static_cast<Timer *>(timer)->action;
            act();
        };
    }
    ~Timer() { uloop_timeout_cancel(this); }
    Timer(const Timer &) = delete;
};

struct Pair {
    int ends[2];

    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
    ~Pair() {
        close(ends[0]);
        close(ends[1]);
    }
    void send(const std::string &text) {
        EXPECT_EQ(write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    }
};

struct Watch : uloop_fd {
    std::function<void(unsigned int)> action;

    explicit Watch(int descriptor) : uloop_fd{} {
        fd = descriptor;
        cb = [](uloop_fd *watch, unsigned int events) {
            const auto act = static_cast<Watch *>(watch)->action;
            act(events);
        };
    }
    ~Watch() { uloop_fd_delete(this); }
    Watch(const Watch &) = delete;
};

class Loop : public testing::Test {
  protected:
    Loop() { EXPECT_EQ(uloop_init(), 0); }
    ~Loop() override { uloop_done(); }

    // Runs to the end that the test itself makes.
    void run() {
        bool in_time = true;
        Timer limit([&] {
            in_time = false;
            uloop_end();
        });
        uloop_timeout_set(&limit, 10000);
        uloop_run();
        EXPECT_TRUE(in_time);
    }

    std::vector<std::string> log;
};

TEST_F(Loop, TimersRunInTheOrderOfTheirExpiryAndThenOfArming) {
    auto entry = [this](const char *name) { return [this, name] { log.emplace_back(name); }; };
    Timer a(entry("a")), b(entry("b")), c(entry("c")), moved(entry("moved")), now(entry("now"));
    Timer end([] { uloop_end(); });

    uloop_timeout_set(&moved, 1);
    uloop_timeout_set(&end, 60);
    uloop_timeout_set(&c, 30);
    uloop_timeout_set(&a, 10);
    uloop_timeout_set(&b, 10);
    uloop_timeout_set(&moved, 31);  // armed again: only the last time counts
    uloop_timeout_set(&now, -5);
    run();
    EXPECT_THAT(log, ElementsAre("now", "a", "b", "c", "moved"));
}

TEST_F(Loop, ACallbackMayCancelFreeAndArmAnyTimer) {
    auto freed = std::make_unique<Timer>([this] { log.emplace_back("freed"); });
    Timer cancelled([this] { log.emplace_back("cancelled"); });
    std::unique_ptr<Timer> itself;
    Timer again;
    int rounds = 0;

    itself = std::make_unique<Timer>([&] {
        log.emplace_back("itself");
        freed.reset();
        uloop_timeout_cancel(&cancelled);
        itself.reset();
    });
    again.action = [&] {
        if (++rounds == 3)
            uloop_end();
        else
            uloop_timeout_set(&again, 0);
    };
    uloop_timeout_set(itself.get(), 0);
    uloop_timeout_set(freed.get(), 0);
    uloop_timeout_set(&cancelled, 0);
    uloop_timeout_set(&again, 5);
    run();
    EXPECT_THAT(log, ElementsAre("itself"));
    EXPECT_EQ(rounds, 3);
}

TEST_F(Loop, ATimerTellsItsTimeAndIsForgottenAtTheEnd) {
    Timer timer([this] { log.emplace_back("late"); });

    EXPECT_EQ(uloop_timeout_cancel(&timer), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&timer), -1);
    uloop_timeout_set(&timer, 30000);
    EXPECT_TRUE(timer.pending);
    EXPECT_NEAR(double(uloop_timeout_remaining64(&timer)), 30000, 1000);
    EXPECT_EQ(uloop_timeout_cancel(&timer), 0);

    // Forgotten with the loop: neither called nor pending in the next one.
    uloop_timeout_set(&timer, 0);
    uloop_done();
    EXPECT_FALSE(timer.pending);
    ASSERT_EQ(uloop_init(), 0);
    uloop_run_timeout(0);
    EXPECT_TRUE(log.empty());
}

TEST_F(Loop, ADescriptorDeletedAndFreedByItsSiblingIsNotCalled) {
    Pair one, two;
    auto first = std::make_unique<Watch>(one.ends[0]);
    auto second = std::make_unique<Watch>(two.ends[0]);
    int calls = 0;

    first->action = [&](unsigned int) {
        calls++;
        second.reset();
    };
    second->action = [&](unsigned int) {
        calls++;
        first.reset();
    };
    one.send("x");
    two.send("x");
    ASSERT_EQ(uloop_fd_add(first.get(), ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(second.get(), ULOOP_READ), 0);
    uloop_run_timeout(1000);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(first == nullptr, second == nullptr);
}

TEST_F(Loop, LevelsAreReportedUntilTheyAreServedAndEdgesOnce) {
    for (const bool edge : {false, true}) {
        Pair pair;
        Watch watch(pair.ends[0]);
        int calls = 0;

        watch.action = [&](unsigned int events) {
            EXPECT_EQ(events, unsigned(ULOOP_READ));
            calls++;
        };
        pair.send("x");
        ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ | (edge ? ULOOP_EDGE_TRIGGER : 0)), 0);
        for (int i = 0; i < 3; i++)
            uloop_run_timeout(0);
        EXPECT_EQ(calls, edge ? 1 : 3);
        // Arming again reports an edge anew.
        uloop_fd_add(&watch, ULOOP_READ | (edge ? ULOOP_EDGE_TRIGGER : 0));
        uloop_run_timeout(0);
        EXPECT_EQ(calls, edge ? 2 : 4);
    }
}

TEST_F(Loop, AHangUpIsReportedOnce) {
    Pair pair;
    Watch watch(pair.ends[0]);
    int calls = 0;

    watch.action = [&](unsigned int) { calls++; };
    uloop_fd_add(&watch, ULOOP_READ);
    shutdown(pair.ends[1], SHUT_RDWR);
    shutdown(pair.ends[0], SHUT_RDWR);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(watch.eof && watch.error);
    EXPECT_FALSE(watch.registered);
}

TEST_F(Loop, ARunInsideACallbackServesTheOthersAndNotTheEdgeInProgress) {
    Pair outer, other;
    Watch watch(outer.ends[0]), sibling(other.ends[0]);
    int depth = 0;

    watch.action = [&](unsigned int) {
        char c;

        EXPECT_EQ(++depth, 1);
        log.emplace_back("watch");
        while (read(watch.fd, &c, 1) == 1)
            ;
        if (log.size() == 1) {
            // Both edges come while this callback runs: the sibling's is served now, its own afterwards.
            outer.send("y");
            other.send("y");
            for (int i = 0; i < 3; i++)
                uloop_run_timeout(0);
        } else {
            uloop_end();
        }
        depth--;
    };
    sibling.action = [&](unsigned int) { log.emplace_back("sibling"); };
    outer.send("x");
    uloop_fd_add(&watch, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    uloop_fd_add(&sibling, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    run();
    EXPECT_THAT(log, ElementsAre("watch", "sibling", "watch"));
}

TEST_F(Loop, ARunInsideACallbackServesTheEdgesThatTheOuterOneHasFound) {
    Pair one, two;
    Watch first(one.ends[0]), second(two.ends[0]);
    int served = 0;

    // Both are found at once; whichever is called first waits for the other.
    first.action = second.action = [&](unsigned int) {
        if (++served == 2)
            return;
        uloop_run_timeout(0);
        EXPECT_EQ(served, 2);
        uloop_end();
    };
    one.send("x");
    two.send("x");
    uloop_fd_add(&first, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    uloop_fd_add(&second, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    run();
}

TEST_F(Loop, TerminationSignalsEndEveryRunAndTheProcessHasItsHandlersBack) {
    for (const int number : {SIGTERM, SIGINT}) {
        Timer nested([&] {
            raise(number);
            // The inner run must not swallow it.
            EXPECT_EQ(uloop_run(), number);
        });
        Timer limit([] { FAIL() << "still running"; });

        uloop_timeout_set(&nested, 0);
        uloop_timeout_set(&limit, 10000);
        EXPECT_EQ(uloop_run(), number);
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    }
    // One that the process ignores stays ignored, and the next run is not affected by the last.
    std::signal(SIGINT, SIG_IGN);
    raise(SIGINT);
    Timer end([] { uloop_end(); });
    Timer ignored([] { raise(SIGINT); });
    uloop_timeout_set(&ignored, 0);
    uloop_timeout_set(&end, 20);
    EXPECT_EQ(uloop_run(), 0);
    std::signal(SIGINT, SIG_DFL);
}

}  // namespace
}  // namespace arvok
