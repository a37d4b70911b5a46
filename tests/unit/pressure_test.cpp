// A gateway that does not read, or that the agent has no time to read from: what waits, what is dropped, and
// when its time is over.

#include <algorithm>

#include "base/text.h"
#include "gateway/reports.h"
#include "link_peer.h"

namespace arvok::gateway {
namespace {

std::size_t times_logged(const std::string &line) {
    std::size_t times = 0;
    for (std::size_t at = 0; (at = logged.text.find(line, at)) != std::string::npos; at++)
        times++;
    return times;
}

// A gateway that asks for more and more, and reads only what it is told to. It has no more under way than the
// agent's socket takes at once: where requests are cut elsewhere than the agent's buffer cuts them, one's
// length may be forgotten.
class Greedy : public Link {
  protected:
    static constexpr int requests = 1000;

    void connect() {
        Link::connect();
        const int much = 1 << 18;  // it reads in gulps
        for (const int which : {SO_RCVBUF, SO_SNDBUF})
            setsockopt(peer_.get(), SOL_SOCKET, which, &much, sizeof much);
    }
    // Asks until the agent does not read any more.
    void ask() {
        unasked_ = requests;
        for (int idle = 0; idle < 50; turn())
            idle = ask_more() ? 0 : idle + 1;
        EXPECT_GT(unasked_, 0u);
    }
    bool ask_more() {
        under_way_ -= times_logged("<- " + request_);
        logged.text.clear();
        const std::size_t asked = std::min(unasked_, under_way_max - under_way_);
        for (std::size_t i = 0; i < asked; i++)
            send(request_);
        under_way_ += asked;
        unasked_ -= asked;
        return asked > 0;
    }
    // The keepalive is sent when the test says so: on a slow machine its second is over before.
    void negotiate() {
        Link::negotiate();
        keepalive_ = timer_of(1000);
        ASSERT_TRUE(keepalive_);
        uloop_timeout_cancel(keepalive_);
    }
    void send_keepalive() { keepalive_->cb(keepalive_); }
    // So many messages, one of which may be another one.
    void receive_answers(int count, const std::string &except = "") {
        for (int i = 0; i < count; i++, ask_more()) {
            const std::string message = receive();
            ASSERT_TRUE(contains(message, R"("type":"ubus_result")") ||
                        (!except.empty() && message == except))
                << message.substr(0, 100);
        }
    }

    const std::string request_ = R"({"type":"ubus_call","sequence":1,"mac":"x","method":"m","object":")" +
                                 std::string(7000, 'x') + "\"}";
    static constexpr std::size_t under_way_max = 6;
    std::size_t unasked_ = 0, under_way_ = 0;
    uloop_timeout *keepalive_ = nullptr;
};

TEST_F(Greedy, ItsAnswersWaitAndItIsNotReadFromMeanwhile) {
    connect();
    ask();
    receive_answers(requests);
}

// The keepalive lies behind the answers, and its acknowledgement behind the requests.
TEST_F(Greedy, ItMayReadSlowly) {
    connect();
    negotiate();
    ask();
    send_keepalive();
    for (int period = 0; period < 2; period++) {
        receive_answers(20);
        fire(20000);
        ASSERT_TRUE(is_armed(20000));
    }
    receive_answers(requests + 1 - 40, R"({"type":"keepalive","sequence":3,"mac":"021122334455"})");
    send(R"({"type":"ack","sequence":3})");
    pump([] { return is_armed(5000); });
}

// One that has taken what lay before the keepalive just before the time is over has all of it to answer.
TEST_F(Greedy, TheTimeBeginsWhenItHasCaughtUp) {
    connect();
    negotiate();
    ask();
    send_keepalive();
    receive_answers(requests + 1, R"({"type":"keepalive","sequence":3,"mac":"021122334455"})");
    turn();
    fire(20000);
    ASSERT_TRUE(is_armed(20000));
    fire(20000);
    EXPECT_TRUE(has_logged("[ERROR] (arvok) wait keepalive ack timeout\n"));
}

TEST_F(Greedy, ButItHasToRead) {
    connect();
    negotiate();
    ask();
    send_keepalive();
    // Its system may still take something for it.
    for (int period = 0; period < 3 && is_armed(20000); period++) {
        turn();
        fire(20000);
    }
    EXPECT_TRUE(has_logged("[ERROR] (arvok) wait keepalive ack timeout\n"));
}

// Behind a call that blocked, a time is over while the answer lies there.
TEST_F(Link, WhatCameInTimeCountsThoughItIsReadLate) {
    connect();
    send(R"({"type":"keyngack","keymode":"dh"})");
    fire(5000);
    const json::document offer = json::parse(receive());
    EXPECT_EQ(offer["type"].text(), "dh");
    agree(offer);
    fire(1000);
    receive();
    // More than a turn's share of other messages before it.
    const std::string other = R"({"type":"qlink","pad":")" + std::string(9000, 'x') + "\"}";
    std::string bytes;
    for (const std::string &body : {other, other, other, std::string(R"({"type":"ack","sequence":3})")})
        bytes += frame(*lab::encrypt(*key_, body));
    send_bytes(bytes);
    log();
    fire(20000);
    pump([] { return is_armed(5000); });
    EXPECT_FALSE(has_logged("timeout"));
    EXPECT_FALSE(is_armed(20000));

    // What comes later does not count, and puts nothing off.
    fire(5000);
    send(probe("in-time"));
    fire(20000);
    pump([this] {
        const bool cut = has_logged("[ERROR] (arvok) wait keepalive ack timeout\n");
        if (!cut)
            send(probe("later"));
        return cut;
    });
    EXPECT_TRUE(has_logged("<- " + probe("in-time")));
    EXPECT_TRUE(is_armed(10000));
}

// What is buffered, at most two requests, and what the system holds.
TEST_F(Greedy, WhatItAskedBeforeItWentCounts) {
    connect();
    ask();
    log();
    peer_.reset();
    expect_log("tcp connection broken");
    EXPECT_GT(times_logged("<- "), 3u);
}

class Telling : public Link {
  protected:
    void SetUp() override {
        Link::SetUp();
        connect();
        negotiate();
        fire(1000);
        receive();  // the keepalive: no other comes for some time
        log();
    }
    void tell(const std::string &mac) {
        agent_->reporting().roaming_report(
            json::parse(R"({"roamingreport":[{"mac":")" + mac + "\"}]}").root());
    }
    // How many reports were written, and how many bytes waited when the first was dropped; one line says so.
    std::size_t written() const { return times_logged(R"(-> {"type":"cfg")"); }
    int waited() const {
        EXPECT_EQ(times_logged("[WARNING]"), 1u);
        const std::size_t at = logged.text.find("[WARNING]");
        int bytes = -1;
        std::sscanf(logged.text.c_str() + at, "[WARNING] (arvok) drop own msgs, ready 1, %d bytes wait\n",
                    &bytes);
        return bytes;
    }
};

TEST_F(Telling, WhatIsNotReadIsDroppedWithTwoLines) {
    constexpr std::size_t told = 2000;
    for (std::size_t i = 0; i < told; i++) {
        tell(std::string(10000, 'm'));
        run_loop_once();
    }
    turn();
    const std::size_t sent = written();

    EXPECT_LT(sent, told);
    EXPECT_GT(waited(), 240 * 1024);
    EXPECT_LE(waited(), 256 * 1024);
    log();
    // A little room does not end it.
    for (int i = 0; i < 3; i++, turn())
        receive();
    tell(std::string(10000, 'm'));
    for (std::size_t i = 3; i < sent; i++)
        receive();
    EXPECT_EQ(log(), "");
    tell("x");
    EXPECT_TRUE(contains(receive(), R"("roaming_report":[{"mac":"x")"));
    const std::string lines = log();
    EXPECT_TRUE(
        lines.starts_with("[INFO] (arvok) dropped " + std::to_string(told + 1 - sent) + " own msgs\n"))
        << lines;
    // Where nothing waits, there is room for a long message, but none is as long as it likes.
    tell(std::string(300000, 'm'));
    EXPECT_GT(receive().size(), 300000u);
    log();
    tell(std::string(800000, 'm'));
    turn();
    EXPECT_EQ(log(), "[ERROR] (arvok) own msg too long\n");
}

// A flood within one turn of the loop: before anything is written, it waits for its turn.
TEST_F(Telling, WhatWaitsForItsTurnIsBounded) {
    agent_->sync_turned_on();
    for (int i = 0; i < 10000; i++) {
        tell("m");
        agent_->sync_turned_on();
    }
    EXPECT_FALSE(has_logged("[ERROR]"));
    EXPECT_LE(waited(), 256 * 1024);
    turn();
    EXPECT_EQ(times_logged("ec_arvoksync_on"), 1u);
    expect_reconnection(1000);
}

TEST_F(Telling, NothingIsToldWhileAKeyIsNegotiated) {
    const json::document offer = take_offer();
    tell("in-clear");
    turn();
    EXPECT_EQ(written(), 0u);
    EXPECT_TRUE(has_logged("[WARNING] (arvok) drop own msgs, ready 0, 0 bytes wait\n"));
    agree(offer);
    tell("x");
    EXPECT_TRUE(contains(receive(), R"("roaming_report":[{"mac":"x")"));
    EXPECT_TRUE(has_logged("[INFO] (arvok) dropped 1 own msgs\n"));
}

}  // namespace
}  // namespace arvok::gateway
