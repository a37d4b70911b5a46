// The cloud connection's framing under every split of the bytes, its faults, its timers and the standard
// reply.

#include "cloud_fixture.h"

namespace arvok {
namespace {

// A request that nobody knows: it shows in the log and in a reply.
std::string unknown(const std::string &id) {
    return R"({"RPCMethod":"Nothing","ID":")" + id + R"("})";
}
std::string refusal(const std::string &id) {
    return R"({"Ack":"Nothing","ID":")" + id + R"(","Result":-1,"FailReason":"UNRECOGNIZE_REQUEST"})";
}

TEST_F(Cloud, AFrameInTwoSegmentsIsHandledWhereverItIsSplit) {
    connect(cc_challenge);
    const std::string whole = message(unknown("split"));
    const std::size_t body = whole.size() - cc_header_size;
    for (std::size_t cut = 1; cut < whole.size(); cut++) {
        log();
        send_bytes(whole.substr(0, cut));
        turn();
        EXPECT_EQ(cc->pending_len, cut > 12 ? static_cast<int>(body) : 0) << cut;
        // No more than a header's size of the body is not even looked at.
        const std::string waiting = "[ERROR] (cloud) wait for the TCP fragmentation, " +
                                    std::to_string(cut - 12) + "/" + std::to_string(body) + "\n";
        EXPECT_EQ(log(), cut > 24 ? waiting : "") << cut;
        send_bytes(whole.substr(cut));
        EXPECT_EQ(receive(), refusal("split")) << cut;
        EXPECT_EQ(cc->pending_len, 0);
    }
    std::string several;
    for (int i = 0; i < 4; i++)
        several += message(unknown(std::to_string(i)));
    for (const char byte : several)
        send_bytes(std::string(1, byte)), turn();
    send_bytes(several);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(receive(), refusal(std::to_string(i % 4)));
    EXPECT_TRUE(connected());

    // What a connection left unfinished does not reach into the next.
    send_bytes(whole.substr(0, 40));
    pump([] { return cc->pending_len != 0; });
    cc_disconnect();
    connect(cc_challenge);
    send_bytes(whole);
    EXPECT_EQ(receive(), refusal("split"));
}

TEST_F(Cloud, AShortBodyWaitsForMoreBytes) {
    connect(cc_challenge);
    const std::string small = message("[]");
    ASSERT_LE(small.size(), 24u);
    log();
    send_bytes(small);
    turn();
    EXPECT_EQ(cc->pending_len, static_cast<int>(small.size()) - 12);
    EXPECT_EQ(log(), "");
    send_bytes(message(unknown("next")));
    EXPECT_EQ(receive(), refusal("next"));
    expect_log(
        "[INFO] (cloud) <- [] (2)\n[ERROR] (cloud) RPCMethod or ID not found\n"
        "[ERROR] (cloud) invalid server msg\n");
}

TEST_F(Cloud, AFramingFaultEndsTheConnection) {
    const std::string body = base64(unknown("x")) + "\r\n";
    const struct {
        std::string frame;
        const char *lines;
    } cases[] = {
        {"QZSGWMP2" + be32(0) + body, "[ERROR] (cloud) invalid msg header, 0\n"},
        {"QZSGWMP2" + be32(16385) + body, "[ERROR] (cloud) invalid msg header, 16385\n"},
        {"QZSGWMP2" + be32(0xffffffff) + body, "[ERROR] (cloud) invalid msg header, -1\n"},
        {"XZSGWMP2" + be32(40) + body,
         "[ERROR] invalid magic 0x585a5347\n[ERROR] (cloud) invalid msg header, 0\n"},
        {"QZSGWMP3" + be32(40) + body,
         "[ERROR] invalid magic 0x515a5347\n[ERROR] (cloud) invalid msg header, 0\n"},
    };
    for (const auto &c : cases) {
        connect(cc_challenge);
        log();
        send_bytes(c.frame);
        expect_log(c.lines);
        expect_reconnection(30000);
        EXPECT_EQ(cc->status, cc_challenge);
        EXPECT_EQ(cc->retry_count, 0);
    }
}

TEST_F(Cloud, TheLongestBodyIsTaken) {
    connect(cc_challenge);
    std::string json = unknown("full");
    json.insert(1, std::string((16384 - 4) / 4 * 3 - json.size(), ' '));
    const std::string body = base64(json) + "\n\n\r\n";
    ASSERT_EQ(body.size(), 16384u);
    send_bytes(frame(body));
    EXPECT_EQ(receive(), refusal("full"));
}

TEST_F(Cloud, AMessageFaultCostsThatMessageOnly) {
    const std::string other_key = "ffffffffffffffff";
    const auto encrypted = [&](const std::string &json, const std::string &key) {
        const text_ptr own = std::exchange(cc->server_key, _strdup(key.c_str()));
        std::string bytes = message(json);
        cc->server_key = _strdup(own.get());
        return bytes;
    };
    connect_fully();
    const struct {
        std::string frame;
        const char *line;  // nullptr: nothing is logged
    } cases[] = {
        {frame(base64("0123456789abcdef")), "[ERROR] invalid msg, not end with \\r\\n\n"},
        {frame(base64("0123456789abcdef") + "\n\r"), "[ERROR] invalid msg, not end with \\r\\n\n"},
        {frame("\r\n"), nullptr},
        {frame("\r"), nullptr},  // waits for more bytes
        {frame("?0123456789abcdef\r\n"), nullptr},
        {frame("abc\r\n"), nullptr},
        {encrypted(unknown("x"), other_key),
         "[ERROR] _do_aes_ecb_crypt decrypt failed: EVP_CipherFinal_ex, "},
        {frame(base64("not whole blocks") + "\r\n"), "[ERROR] _do_aes_ecb_crypt decrypt failed: "},
        {message("{\"Ack\":"), "[ERROR] (cloud) invalid msg (not json format)\n"},
        {message("{\"Ack\":\"Nothing\"}"),
         "[ERROR] (cloud) unknown Ack type: Nothing\n[ERROR] (cloud) invalid server msg\n"},
        {message(R"({"Ack":1,"RPCMethod":"Nothing"})"),
         "[ERROR] (cloud) RPCMethod or ID not found\n[ERROR] (cloud) invalid server msg\n"},
        {message(R"({"RPCMethod":1,"ID":"1"})"),
         "[ERROR] (cloud) RPCMethod or ID not found\n[ERROR] (cloud) invalid server msg\n"},
        {message(R"({"RPCMethod":"Nothing","ID":1})"),
         "[ERROR] (cloud) RPCMethod or ID not found\n[ERROR] (cloud) invalid server msg\n"},
    };
    for (const auto &c : cases) {
        log();
        send_bytes(c.frame);
        turn();
        if (c.line)
            expect_log(c.line);
        else
            EXPECT_EQ(log(), "") << c.frame;
        send_bytes(message(unknown("after")));
        EXPECT_EQ(receive(), refusal("after"));
        EXPECT_TRUE(connected());
        if (c.frame == frame("\r"))
            expect_log("[ERROR] invalid msg, not end with \\r\\n\n[INFO] (cloud) <- ");
    }
}

TEST_F(Cloud, WithoutItsKeyAMessageGoesNeitherWay) {
    const struct {
        std::int32_t status;
        const char *encrypt;
        const char *decrypt;
    } cases[] = {
        {cc_bootstrap, "[ERROR] encrypt public key is null\n", "[ERROR] decrypt client key is null\n"},
        {cc_activating, "[ERROR] encrypt public key is null\n", "[ERROR] decrypt client key is null\n"},
        {cc_connecting, "[ERROR] encrypt public key is null\n", "[ERROR] decrypt client key is null\n"},
        {cc_connected, "[ERROR] encrypt server key is null\n", "[ERROR] decrypt server key is null\n"},
        {0, "[ERROR] unknown connection status\n", "[ERROR] unknown connection status\n"},
        {6, "[ERROR] unknown connection status\n", "[ERROR] unknown connection status\n"},
    };
    connect(cc_challenge);
    const std::string bytes = message(unknown("x"));
    cc->public_key = nullptr;
    for (const auto &c : cases) {
        cc->status = c.status;
        log();
        cc_send(cc_new_msg("Anything").release());
        EXPECT_EQ(log(), R"([INFO] (cloud) -> {"RPCMethod":"Anything","MAC":"021122334455"} (45))"
                         "\n" +
                             std::string(c.encrypt));
        send_bytes(bytes);
        turn();
        EXPECT_EQ(log(), c.decrypt);
    }
    char byte;
    EXPECT_EQ(recv(peer_, &byte, 1, 0), -1);
}

TEST_F(Cloud, AMissingAcknowledgementEndsTheConnection) {
    for (const std::int32_t status : {cc_bootstrap, cc_challenge, cc_activating, cc_connecting}) {
        connect(cc_challenge);
        cc->status = status;
        expect_armed(cc->ack_timer, 30000);
        cc->retry_count = 0;
        cc_set_status_text("before");
        fire(cc->ack_timer);
        expect_retry(1);
        expect_log("[ERROR] (cloud) wait Ack timeout\n");
        EXPECT_STREQ(cc->status_text, "未收到平台响应报文");
        EXPECT_EQ(cc->status, status == cc_bootstrap ? cc_bootstrap : cc_challenge);
    }
    cc->retry_count = 0;
    connect_fully();
    fire(cc->ack_timer);
    expect_reconnection(10);
    EXPECT_EQ(cc->retry_count, 0);
}

TEST_F(Cloud, AStrayAcknowledgementDoesNotEndTheHandshakesDeadline) {
    connect(cc_challenge);
    log();
    for (const char *name : {"Heartbeat", "InstallNotification"})
        send_bytes(message(R"({"Ack":")" + std::string(name) + R"(","Result":0})"));
    expect_log("[INFO] (cloud) <- {\"Ack\":\"InstallNotification\",\"Result\":0} (");
    turn();
    EXPECT_TRUE(cc->ack_timer.pending);
    EXPECT_EQ(log_text().find("[ERROR]"), std::string::npos);
}

TEST_F(Cloud, OnlyWhatAwaitsAnAcknowledgementMovesTheTimers) {
    connect_fully();
    const auto set_both = [] {
        uloop_timeout_set(&cc->ack_timer, 5000);
        uloop_timeout_set(&cc->heartbeat_timer, 5000);
    };
    set_both();
    uloop_timeout_cancel(&cc->ack_timer);
    send_bytes(
        message(unknown("x")));  // a message that arrives puts the heartbeat off, its reply awaits nothing
    receive();
    expect_armed(cc->heartbeat_timer, 100000);
    EXPECT_FALSE(cc->ack_timer.pending);

    set_both();
    uloop_timeout_cancel(&cc->ack_timer);
    cc_msg_ptr msg = cc_new_msg("InstallNotification");
    msg->wait_ack = 0;
    cc_send(msg.release());
    receive();
    expect_armed(cc->heartbeat_timer, 5000);
    EXPECT_FALSE(cc->ack_timer.pending);

    set_both();
    cc_send(cc_new_msg("Anything").release());
    receive();
    EXPECT_FALSE(cc->heartbeat_timer.pending);
    expect_armed(cc->ack_timer, 30000);

    cc->result = -7;
    cc_set_fail_reason("stale");
    log();
    send_bytes(message(R"({"Ack":"InstallNotification"})"));
    pump([] { return !cc->ack_timer.pending; });
    EXPECT_EQ(log(), "[INFO] (cloud) <- {\"Ack\":\"InstallNotification\"} (29)\n");
    EXPECT_EQ(cc->result, 0);
    EXPECT_STREQ(cc->fail_reason, "");
}

TEST_F(Cloud, WhatFollowsInTheSegmentOfAnEndIsDropped) {
    connect_fully();
    log();
    send_bytes(message(R"({"Ack":"Heartbeat","Result":7})") + message(unknown("x")) + message(unknown("y")));
    expect_reconnection(10);
    EXPECT_EQ(log_text().find("read"), std::string::npos);
    EXPECT_EQ(log_text().find("<-"), std::string::npos);
}

TEST_F(Cloud, HeartbeatsFollowSilenceAndStayOutOfTheLog) {
    connect_fully();
    log();
    send_bytes(message(unknown("x")));
    receive();
    expect_armed(cc->heartbeat_timer, 100000);
    log();
    fire(cc->heartbeat_timer);
    EXPECT_EQ(receive(), R"({"RPCMethod":"Heartbeat","MAC":"021122334455","IPAddr":"127.0.0.1"})");
    EXPECT_FALSE(cc->heartbeat_timer.pending);
    expect_armed(cc->ack_timer, 30000);
    send_bytes(message(R"({"Ack":"Heartbeat","Result":0})"));
    pump([] { return !cc->ack_timer.pending; });
    expect_armed(cc->heartbeat_timer, 100000);
    EXPECT_EQ(log(), "");
    send_bytes(message(R"({"Ack":"Heartbeat","Result":7})"));
    expect_reconnection(10);
    EXPECT_STREQ(cc->status_text, "平台返回7");
}

TEST_F(Cloud, AReplyTellsTheResultAndOnlyThenTheReason) {
    connect(cc_challenge);
    const json_ptr request = json_parse(R"({"RPCMethod":"Some","ID":"7"})");
    cc_set_fail_reason("%s", std::string(300, 'x').c_str());
    const std::string reason(255, 'x');
    cc->result = 0;
    cc_reply(request.get());
    EXPECT_EQ(receive(), R"({"Ack":"Some","ID":"7","Result":0})");
    cc->result = -6;
    cc_reply(request.get(), "Plugin", json_texts({"a"}));
    EXPECT_EQ(receive(),
              R"({"Ack":"Some","ID":"7","Result":-6,"FailReason":")" + reason + R"(","Plugin":["a"]})");
    cc->fail_reason[0] = '\0';
    cc_reply(request.get(), "Plugin", nullptr);
    EXPECT_EQ(receive(), R"({"Ack":"Some","ID":"7","Result":-6})");
    cc_disconnect();
    log();
    cc_reply(request.get());
    cc_send(cc_new_msg("Late").release());
    EXPECT_EQ(log(), "");
    EXPECT_FALSE(cc->ack_timer.pending);
}

TEST_F(Cloud, ABrokenConnectionIsRetried) {
    connect(cc_challenge);
    shutdown(peer_, SHUT_RDWR);
    expect_log("[ERROR] (cloud) tcp connection broken\n");
    expect_retry(1);
    EXPECT_STREQ(cc->status_text, "TCP连接断开");
    close(listener_);
    cc->resolver.current = {"127.0.0.1", "8088", server_tried};
    cc_run();
    expect_log("[ERROR] (cloud) tcp connection broken\n[INFO] (cloud) retry count 2 cycle 1\n");
    start_listening();
}

}  // namespace
}  // namespace arvok
