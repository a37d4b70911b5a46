// The gate to the platform: what a silent platform costs, and whom.

#include "platform/gate.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <tuple>
#include <vector>

#include "../loop.h"
#include "base/held_signals.h"
#include "platform/records.h"

namespace arvok::platform {
namespace {

// The platform, with a function of each shape. Each answers after `takes_ms` by a clock that nothing else
// moves, however busy the machine is.
int takes_ms;
std::int64_t passed_ms = 1000;
bool refuses;
std::vector<std::string> made;

bool answer(const char *name) {
    made.emplace_back(name);
    passed_ms += takes_ms;
    return !refuses;
}
char *get() {
    return answer("get") ? qzcap_strdup("text") : nullptr;
}
int set(int, char **errtext) {
    const bool done = answer("set");
    *errtext = done ? nullptr : qzcap_strdup("no");
    return done ? 0 : -1;
}
int add() {
    return answer("add") ? 7 : -1;
}

struct Gate : testing::Test {
    void SetUp() override {
        uloop_init();
        opened.emplace();
        made.clear();
        be(0, false);
    }
    void TearDown() override {
        opened.reset();
        uloop_done();
    }

    static void be(int ms, bool refused) {
        takes_ms = ms;
        refuses = refused;
    }
    static std::string set_once() {
        reason why;
        return call(set, 1, why) < 0 ? why.c_str() : "done";
    }

    std::optional<gate> opened;
};

constexpr int silent_ms = 1000;  // the shortest time-out that a platform has here

TEST_F(Gate, PassesCallsAndTheirAnswers) {
    EXPECT_STREQ(owned_text(call(get)).get(), "text");
    EXPECT_EQ(set_once(), "done");
    EXPECT_EQ(call(add), 7);
    be(0, true);
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(call(get));
        EXPECT_EQ(set_once(), "no");
    }
    EXPECT_EQ(made.size(), 9u) << "what is refused at once may be asked for again";
}

TEST_F(Gate, SlowAnswersCostNobodyAnything) {
    be(silent_ms, false);
    EXPECT_EQ(set_once(), "done");
    EXPECT_EQ(call(add), 7);
    EXPECT_STREQ(owned_text(call(get)).get(), "text");
}

TEST_F(Gate, OneThatTimedOutIsNotCalledAgainAndAfterTwoNobodyIs) {
    be(silent_ms, true);
    EXPECT_EQ(set_once(), "no");
    be(0, false);
    EXPECT_EQ(set_once(), "Request timed out");
    EXPECT_EQ(call(set, 1, nullptr), -1);
    EXPECT_EQ(call(add), 7) << "one alone costs the others nothing";

    be(silent_ms, true);
    EXPECT_FALSE(call(get));
    be(0, false);
    EXPECT_EQ(call(add), -1);
    EXPECT_FALSE(call(get));
    EXPECT_EQ(made, (std::vector<std::string>{"set", "add", "get"}));
}

// What has come while the platform was silent has waited already. It is asked again for what comes later.
TEST_F(Gate, WhatHasComeMeanwhileSharesTheLoss) {
    struct message {
        explicit message(std::function<void()> take)
            : handle(std::move(take)), watch(bind<&message::read>(*this)) {
            EXPECT_EQ(pipe(ends), 0);
            EXPECT_TRUE(watch.start(ends[0]));
        }
        ~message() {
            watch.stop();
            close(ends[0]);
            close(ends[1]);
        }
        void send() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
        void read() {
            char byte;
            EXPECT_EQ(::read(ends[0], &byte, 1), 1);
            handle();
        }
        int ends[2];
        std::function<void()> handle;
        readable_watch watch;
    };
    std::vector<std::string> second, third;
    const message last([&] { third.push_back(set_once()); });
    const message next([&] {
        second.push_back(set_once());
        last.send();
    });
    const message first([&] {
        be(silent_ms, true);
        set_once();
        next.send();
        call(get);
        be(0, false);
        next.send();
    });
    first.send();
    for (int turn = 0; turn < 3; turn++)
        run_loop_once();
    EXPECT_EQ(second, (std::vector<std::string>{"Request timed out", "done"}));
    EXPECT_EQ(third, (std::vector<std::string>{"done", "done"}));
}

// A sender that has waited for the answer is no such: for its next message the platform is asked again. One
// that sends on without waiting has the same loss for all of it.
TEST_F(Gate, WhoHasHadTheAnswerMayAskAgain) {
    struct sender {
        bool has_more() { return more; }
        bool more;
    } waits{false}, presses{true};
    for (sender *who : {&waits, &presses}) {
        made.clear();
        for (int sent = 0; sent < 2; sent++) {
            const message_scope scope(who, bind<&sender::has_more>(*who));
            be(silent_ms, true);
            set_once();
            set_once();
        }
        EXPECT_EQ(made.size(), who == &waits ? 2u : 0u);
    }
    run_loop_once();
    EXPECT_EQ(set_once(), "no");
}

// Of what is answered, a message has its share; what it has deferred until its answer does not depend on
// that.
TEST_F(Gate, AMessageWithManyCallsDoesNotHoldUpTheOthers) {
    struct sender {
        bool has_more() { return true; }
    } many;
    for (const auto &[takes, least, most] : {std::tuple(0, 300, 300), {20, 64, 64}, {100, 30, 32}}) {
        SCOPED_TRACE(takes);
        made.clear();
        const std::size_t before = gate::held_back();
        {
            const message_scope scope(&many, bind<&sender::has_more>(many));
            be(silent_ms, false);  // one that is slow by itself
            EXPECT_EQ(set_once(), "done");
            be(takes, false);
            for (int n = 1; n < 300; n++)
                set_once();
            const int times = static_cast<int>(made.size());
            EXPECT_GE(times, least);
            EXPECT_LE(times, most);
            EXPECT_EQ(call(add), times == 300 ? 7 : -1);
            EXPECT_EQ(gate::held_back() > before, times < 300);
            gate::message_answered();
            EXPECT_EQ(call(add), 7);
        }
        EXPECT_EQ(set_once(), "done");
    }
}

TEST_F(Gate, NobodyIsCalledOnceTheProcessIsToEnd) {
    const held_signals held;
    std::raise(SIGTERM);
    EXPECT_EQ(set_once(), "Request timed out");
    EXPECT_TRUE(made.empty());
    sigset_t come;
    sigemptyset(&come);
    sigaddset(&come, SIGTERM);
    int number;
    sigwait(&come, &number);
    EXPECT_EQ(set_once(), "done");
}

}  // namespace
}  // namespace arvok::platform

extern "C" int clock_gettime(clockid_t, timespec *time) noexcept {
    time->tv_sec = static_cast<std::time_t>(arvok::platform::passed_ms / 1000);
    time->tv_nsec = static_cast<long>(arvok::platform::passed_ms % 1000) * 1000000;
    return 0;
}
