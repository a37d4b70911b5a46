#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/wait.h>
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
    int take() const {
        char c;
        return static_cast<int>(read(ends[0], &c, 1));
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

    // Runs to the end that the test itself makes; the signal that came instead.
    static int run() {
        bool in_time = true;
        Timer limit([&] {
            in_time = false;
            uloop_end();
        });
        uloop_timeout_set(&limit, 10000);
        const int number = uloop_run_timeout(-1);
        EXPECT_TRUE(in_time);
        return number;
    }
    // Runs for a while. With another limit, older releases go on until an event.
    static void run_for(int ms) {
        Timer end([] { uloop_end(); });
        uloop_timeout_set(&end, ms);
        uloop_run_timeout(-1);
    }

    std::vector<std::string> log;
};

TEST_F(Loop, TimersRunInTheOrderOfTheirExpiryAndThenOfArming) {
    auto entry = [this](const char *name) { return [this, name] { log.emplace_back(name); }; };
    Timer a(entry("a")), b(entry("b")), c(entry("c")), moved(entry("moved")), now(entry("now")),
        past(entry("past"));
    Timer end([] { uloop_end(); });

    uloop_timeout_set(&moved, 1);
    uloop_timeout_set(&end, 60);
    uloop_timeout_set(&c, 30);
    uloop_timeout_set(&a, 10);
    uloop_timeout_set(&b, 10);
    uloop_timeout_set(&moved, 31);  // armed again: only the last time counts
    uloop_timeout_set(&now, 0);
    uloop_timeout_set(&past, -5);
    run();
    EXPECT_THAT(log, ElementsAre("past", "now", "a", "b", "c", "moved"));
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
    EXPECT_EQ(uloop_timeout_remaining(&timer), -1);
    uloop_timeout_set(&timer, 30000);
    EXPECT_TRUE(timer.pending);
    EXPECT_NEAR(uloop_timeout_remaining(&timer), 29500, 500);
    uloop_timeout_set(&timer, -5000);
    EXPECT_NEAR(uloop_timeout_remaining(&timer), -5500, 500) << "overdue";
    EXPECT_EQ(uloop_timeout_cancel(&timer), 0);

    // Forgotten with the loop: neither called nor pending in the next one.
    uloop_timeout_set(&timer, 0);
    uloop_done();
    EXPECT_FALSE(timer.pending);
    ASSERT_EQ(uloop_init(), 0);
    run_for(20);
    EXPECT_TRUE(log.empty());
}

TEST_F(Loop, ADescriptorDeletedAndFreedByItsSiblingIsNotCalled) {
    Pair one, two;
    auto first = std::make_unique<Watch>(one.ends[0]);
    auto second = std::make_unique<Watch>(two.ends[0]);
    int calls = 0;

    first->action = [&](unsigned int) {
        calls += one.take();
        second.reset();
    };
    second->action = [&](unsigned int) {
        calls += two.take();
        first.reset();
    };
    one.send("x");
    two.send("x");
    ASSERT_EQ(uloop_fd_add(first.get(), ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(second.get(), ULOOP_READ), 0);
    run_for(20);
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
            if (++calls == 3)
                uloop_end();
        };
        pair.send("x");
        ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ | (edge ? ULOOP_EDGE_TRIGGER : 0)), 0);
        run_for(20);
        EXPECT_EQ(calls, edge ? 1 : 3);
        // Arming again reports an edge anew.
        uloop_fd_add(&watch, ULOOP_READ | (edge ? ULOOP_EDGE_TRIGGER : 0));
        run_for(20);
        EXPECT_GE(calls, edge ? 2 : 4);
    }
}

TEST_F(Loop, WhatIsToHappenAtOnceHappensBeforeTheNextDescriptor) {
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    Timer at_once([this] { log.emplace_back("timer"); });

    for (Pair &pair : pairs) {
        watches.push_back(std::make_unique<Watch>(pair.ends[0]));
        watches.back()->action = [&](unsigned int) {
            log.emplace_back("descriptor");
            uloop_timeout_set(&at_once, 0);
        };
        pair.send("x");
        uloop_fd_add(watches.back().get(), ULOOP_READ | ULOOP_EDGE_TRIGGER);
    }
    run_for(20);
    EXPECT_THAT(log, ElementsAre("descriptor", "timer", "descriptor", "timer", "descriptor", "timer"));
}

TEST_F(Loop, AHangUpIsReportedOnceAndTakesTheDescriptorAwayBeforeAnybodyIsCalled) {
    Pair pairs[2];
    Watch one(pairs[0].ends[0]), two(pairs[1].ends[0]);
    int calls = 0;

    one.action = two.action = [&](unsigned int) {
        calls++;
        EXPECT_TRUE(one.eof && one.error && two.eof && two.error);
        EXPECT_FALSE(one.registered || two.registered);
    };
    for (Watch *watch : {&one, &two})
        uloop_fd_add(watch, ULOOP_READ);
    for (const Pair &pair : pairs) {
        shutdown(pair.ends[1], SHUT_RDWR);
        shutdown(pair.ends[0], SHUT_RDWR);
    }
    run_for(20);
    EXPECT_EQ(calls, 2);
    // Adding it again forgets what has been.
    uloop_fd_add(&one, ULOOP_READ);
    EXPECT_FALSE(one.eof || one.error);
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
            run_for(20);
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
            return uloop_end();
        run();
        EXPECT_EQ(served, 2);
    };
    one.send("x");
    two.send("x");
    uloop_fd_add(&first, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    uloop_fd_add(&second, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    run();
}

void (*handler_of(int number))(int) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    return action.sa_handler;
}

TEST_F(Loop, TerminationSignalsEndTheRunAndTheProcessHasItsHandlersBackWithTheLoop) {
    for (const int number : {SIGTERM, SIGINT}) {
        Timer now([&] { raise(number); });
        uloop_timeout_set(&now, 0);
        EXPECT_EQ(run(), number);
    }
    // One that came outside of a run says that the loop is to end, and a run forgets it.
    raise(SIGTERM);
    EXPECT_TRUE(uloop_cancelled);
    Timer end([] { uloop_end(); });
    uloop_timeout_set(&end, 20);
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(end.pending);

    for (const int number : {SIGTERM, SIGINT, SIGCHLD})
        EXPECT_NE(handler_of(number), SIG_DFL);
    uloop_done();
    for (const int number : {SIGTERM, SIGINT, SIGCHLD})
        EXPECT_EQ(handler_of(number), SIG_DFL);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN) << "nobody wants that one back";

    // What the process has arranged stays so.
    std::signal(SIGINT, SIG_IGN);
    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGINT), SIG_IGN);
    std::signal(SIGINT, SIG_DFL);
}

TEST_F(Loop, ARunInsideACallbackForgetsTheEndOfTheOuterOne) {
    Timer nested([&] {
        uloop_end();
        run_for(20);
        log.emplace_back("inner run");
        // Its own end is the outer run's, too.
        EXPECT_TRUE(uloop_cancelling());
    });
    uloop_timeout_set(&nested, 0);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(log, ElementsAre("inner run"));
}

TEST_F(Loop, EveryChildThatEndsIsTakenByTheLoop) {
    struct Child : uloop_process {
        int status;
    } child{};
    child.status = -1;
    child.cb = [](uloop_process *process, int status) {
        static_cast<Child *>(process)->status = status;
        uloop_end();
    };
    const pid_t unknown = fork();
    if (unknown == 0)
        _exit(1);
    child.pid = fork();
    if (child.pid == 0) {
        usleep(20000);
        _exit(3);
    }
    EXPECT_EQ(uloop_process_add(&child), 0);
    EXPECT_EQ(uloop_process_add(&child), -1);
    run();
    EXPECT_EQ(WEXITSTATUS(child.status), 3);
    EXPECT_EQ(uloop_process_delete(&child), -1);
    EXPECT_EQ(waitpid(unknown, nullptr, WNOHANG), -1) << "it was left to the process";
}

}  // namespace
}  // namespace arvok
