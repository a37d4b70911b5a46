// The cloud connection's framing under every split of the bytes, its faults, its timers and its bounds.

#include "cloud_fixture.h"
#include "own_network.h"

namespace arvok::cloud {
namespace {

// A request that nobody knows: it shows in the log and in a reply.
std::string unknown(const std::string &id) {
    return R"({"RPCMethod":"Nothing","ID":")" + id + R"("})";
}
std::string refusal(const std::string &id) {
    return R"({"Ack":"Nothing","ID":")" + id + R"(","Result":-1,"FailReason":"UNRECOGNIZE_REQUEST"})";
}

TEST_F(Cloud, APlatformThatIsGoneWithoutAWordIsNoticed) {
    fetch_challenge();
    EXPECT_EQ(dead_peer_options(8088), "1 30 10 3 60000 ");
}

TEST_F(Cloud, AFrameIsHandledWhereverItIsSplit) {
    fetch_challenge();
    const std::string whole = message(unknown("split"));
    const int body = static_cast<int>(whole.size() - header_size);
    for (int cut = 1; cut < static_cast<int>(whole.size()); cut++) {
        log();
        send_bytes(whole.substr(0, static_cast<std::size_t>(cut)));
        turn();
        // No more than a header's size of the body is not even looked at.
        EXPECT_EQ(log(),
                  cut > 24 ? format("[ERROR] (cloud) wait for the TCP fragmentation, %d/%d\n", cut - 12, body)
                           : "");
        send_bytes(whole.substr(static_cast<std::size_t>(cut)));
        EXPECT_EQ(receive(), refusal("split")) << cut;
    }
    send_bytes(whole + whole);
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(receive(), refusal("split"));

    // A body that is no longer than a header waits for what follows it.
    ASSERT_LE(message("[]").size(), 2 * header_size);
    log();
    send("[]");
    turn();
    EXPECT_EQ(log(), "");
    send_bytes(whole);
    EXPECT_EQ(receive(), refusal("split"));
    EXPECT_TRUE(log().starts_with("[INFO] (cloud) <- [] (2)\n[ERROR] (cloud) RPCMethod or ID not found\n"));

    std::string json = unknown("full");
    json.insert(1, std::string((body_max - 4) / 4 * 3 - json.size(), ' '));
    send_bytes(frame(base64_encode(json) + "\n\n\r\n"));  // of body_max bytes
    EXPECT_EQ(receive(), refusal("full"));

    // What a connection left unfinished does not reach into the next.
    send_bytes(whole.substr(0, 40));
    turn();
    EXPECT_TRUE(client_->wan_down());
    client_->wan_up();
    accept_one();
    receive();
    send_bytes(whole);
    EXPECT_EQ(receive(), refusal("split"));
}

TEST_F(Cloud, AMissingAcknowledgementEndsTheConnection) {
    const std::tuple<std::function<void()>, const char *, const char *> stages[] = {
        {[&] { bootstrap(); }, "获取能力平台地址中", "未获取到能力平台地址"},
        {[&] { fetch_challenge(); }, "获取挑战码中", "未激活"},
        {[&] { activate(); }, "激活中", "未激活"},
        {[&] { prove(); }, "连接中", "已激活"},
    };
    for (const auto &[reach, words, words_after] : stages) {
        machine = {};
        reach();
        EXPECT_EQ(client_->status_words(), words);
        expect_armed(client_->acknowledgement_remaining(), 30000);
        log();
        advance(30000);
        expect_log("[ERROR] (cloud) wait Ack timeout\n[INFO] (cloud) retry count 1 cycle 1\n");
        if (contains(log_text(), "after 0 seconds"))  // by chance: nothing is waited for
            continue;
        EXPECT_TRUE(
            client_->status_words().starts_with(words_after + std::string("，未收到平台响应报文，等待")))
            << client_->status_words();
    }
    connect_fully();
    EXPECT_EQ(client_->status_words(), "心跳保活中");
    advance(100000);
    EXPECT_EQ(receive(), heartbeat);
    advance(30000);
    expect_reconnection(10);
    EXPECT_FALSE(contains(log(), "retry"));
}

TEST_F(Cloud, HeartbeatsFollowSilenceAndStayOutOfTheLog) {
    connect_fully();
    expect_armed(client_->heartbeat_remaining(), 100000);
    advance(60000);
    ask("Nothing");  // what arrives puts the heartbeat off, and its reply awaits nothing
    expect_armed(client_->heartbeat_remaining(), 100000);
    advance(60000);
    client_->send_notification("told");  // nor does this, which does not put it off
    EXPECT_TRUE(contains(receive(), R"("Plugin_Name":"ArvokAP","Version":"1.0.7","Message":"dG9sZA=="})"));
    expect_armed(client_->heartbeat_remaining(), 40000);
    EXPECT_EQ(client_->acknowledgement_remaining(), -1);

    log();
    advance(40000);
    EXPECT_EQ(receive(), heartbeat);
    EXPECT_EQ(client_->heartbeat_remaining(), -1);
    expect_armed(client_->acknowledgement_remaining(), 30000);
    send(ack("Heartbeat", R"("Result":0)"));
    pump([&] { return client_->acknowledgement_remaining() < 0; });
    expect_armed(client_->heartbeat_remaining(), 100000);
    EXPECT_EQ(log(), "");

    // What follows in the segment of an end is dropped.
    send_bytes(message(ack("Heartbeat", R"("Result":7)")) + message(unknown("x")) + message(unknown("y")));
    expect_reconnection(10);
    EXPECT_FALSE(contains(log(), "<-"));
    EXPECT_EQ(client_->status_words(), "已激活，平台返回7，等待0秒后连接");

    // In the handshake nobody has asked for such an acknowledgement: the deadline stays.
    fetch_challenge();
    for (const char *name : {"Heartbeat", "InstallNotification"})
        send(ack(name, R"("Result":0)"));
    expect_log("[INFO] (cloud) <- {\"Ack\":\"InstallNotification\",\"Result\":0} (");
    EXPECT_GE(client_->acknowledgement_remaining(), 0);
}

// Behind a call that blocked, the time is over while the acknowledgement lies there.
TEST_F(Cloud, WhatIsAcknowledgedInTimeCountsThoughItIsReadLate) {
    connect_fully();
    advance(100000);
    EXPECT_EQ(receive(), heartbeat);
    send_bytes(message(unknown("before")) + message(ack("Heartbeat", R"("Result":0)")));
    advance(30000);
    EXPECT_EQ(receive(), refusal("before"));
    pump([&] { return client_->acknowledgement_remaining() < 0; });
    expect_armed(client_->heartbeat_remaining(), 100000);
    EXPECT_FALSE(contains(log(), "timeout"));
}

TEST_F(Cloud, NotificationsThatAreNotReadAreDroppedWithTwoLines) {
    constexpr int told = 1000;
    connect_fully();
    for (int i = 0; i < told; i++) {
        client_->send_notification(std::string(6000, 'n'));
        run_loop_once();
    }
    turn();
    const std::string text = log();
    int sent = 0, waited = 0;
    for (std::size_t at = 0; (at = text.find("(cloud) -> ", at)) != std::string::npos; at++)
        sent++;
    EXPECT_LT(sent, told);
    const std::size_t warning = text.find("[WARNING]");
    ASSERT_NE(warning, std::string::npos);
    EXPECT_EQ(text.find("[WARNING]", warning + 1), std::string::npos);
    std::sscanf(text.c_str() + warning, "[WARNING] (cloud) drop own msgs, ready 1, %d bytes wait\n", &waited);
    EXPECT_GT(waited, 240 * 1024);
    EXPECT_LE(waited, 256 * 1024);

    for (int i = 0; i < sent; i++)
        receive();
    EXPECT_EQ(log(), "");
    client_->send_notification("x");
    receive();
    EXPECT_TRUE(log().starts_with(format("[INFO] (cloud) dropped %d own msgs\n", told - sent)));

    client_->send_notification(std::string(700 * 1024, 'n'));  // a third more in its message
    turn();
    EXPECT_EQ(log(), "[WARNING] (cloud) drop own msgs, ready 1, 0 bytes wait\n");
    client_->send_notification("x");
    receive();

    // Nor is there anybody to read them before status 5.
    client_->wan_down();
    log();
    client_->send_notification("x");
    client_->send_notification("x");
    turn();
    EXPECT_EQ(log(), "[WARNING] (cloud) drop own msgs, ready 0, 0 bytes wait\n");
}

// A platform that sends requests and does not take the answers is not read from any more.
TEST_F(Cloud, WhatWaitsToBeSentIsBounded) {
    constexpr int requests_max = 1200;
    fetch_challenge();
    const std::string id(11000, 'i'), bytes = message(unknown(id));
    int sent = 0, done = 0;
    for (int idle = 0; sent < requests_max && idle < 200; idle++) {
        if (done == sent)
            send_bytes(bytes), sent++, idle = 0;
        run_loop_for(1);
        const std::string text = log();
        for (std::size_t at = 0; (at = text.find("(cloud) <- ", at)) != std::string::npos; at++)
            done++;
    }
    EXPECT_LT(done, requests_max);
    EXPECT_GT(static_cast<std::size_t>(done) * id.size(), 128u * 1024);
    for (int i = 0; i < sent; i++)
        ASSERT_EQ(receive(), refusal(id)) << i << " of " << sent;
}

TEST_F(Cloud, AChangeOfTheBootstrapServerEndsWithItsConnection) {
    for (const bool is_up : {false, true}) {
        connect_fully();
        machine.names["bss.example"] = {{"100.64.0.9"}};
        ask("RequestConnectBSS");
        EXPECT_TRUE(client_->wan_down());
        if (is_up) {
            client_->wan_up();
            EXPECT_EQ(accept_one(), "100.64.0.9");
            EXPECT_TRUE(contains(receive(), "Boot"));
        }
        log();
        advance(1000);
        turn();
        EXPECT_EQ(client_->status_words(), is_up ? "获取能力平台地址中" : "获取挑战码中");
        EXPECT_EQ(client_->acknowledgement_remaining() >= 0, is_up);
        EXPECT_EQ(log(), "");
    }
}

}  // namespace
}  // namespace arvok::cloud
