// The link's framing under every split of the bytes, its faults and its reconnection policy.

#include "link_fixture.h"

namespace arvok {
namespace {

TEST_F(Link, AFrameInTwoSegmentsIsHandledWhereverItIsSplitBehindTheHeader) {
    connect();
    const std::string body = probe("split-here-please"), whole = frame(body);
    // Up to eight bytes wait for more; with one to eight bytes of the body the header is taken and its length
    // lost (that case has its own test); beyond that the body is waited for.
    for (std::size_t cut = 1; cut < whole.size(); cut++) {
        if (cut > 8 && cut <= 16)
            continue;
        send_bytes(whole.substr(0, cut));
        turn();
        const bool header_taken = cut > 16;
        EXPECT_EQ(ec->pending_len, header_taken ? static_cast<int>(body.size()) : 0) << cut;
        if (header_taken) {
            EXPECT_NE(log_text().find("[INFO] (arvok) wait for the TCP fragmentation, " +
                                      std::to_string(cut - 8) + "/" + std::to_string(body.size()) + "\n"),
                      std::string::npos);
        }
        EXPECT_EQ(log().find("<-"), std::string::npos) << cut;
        send_bytes(whole.substr(cut));
        expect_log("[INFO] (arvok) <- " + body + " (" + std::to_string(body.size()) + ")\n");
        EXPECT_EQ(ec->pending_len, 0);
        log();
    }
    EXPECT_TRUE(connected());
}

TEST_F(Link, AHeaderWithUpToEightBodyBytesLosesItsLength) {
    const std::string whole = frame(probe("lost"));
    struct {
        std::size_t cut;
        const char *magic;  // what stands where the next header is looked for
    } const cases[] = {{9, "0x7b227479"}, {12, "0x7b227479"}, {16, "0x7b227479"}};
    for (const auto &c : cases) {
        connect();
        log();
        send_bytes(whole.substr(0, c.cut));
        turn();
        EXPECT_EQ(ec->pending_len, 0);
        EXPECT_TRUE(connected());
        EXPECT_EQ(log(), "");
        send_bytes(whole.substr(c.cut));  // the body is now taken for a header
        expect_log(std::string("[ERROR] invalid magic ") + c.magic + "\n");
        expect_log("[ERROR] (arvok) invalid msg header, 0\n");
        expect_reconnection(10000);
    }
}

TEST_F(Link, FiftyFramesInOneSegment) {
    connect();
    std::string all;
    for (int i = 0; i < 50; i++)
        all += frame(probe("number-" + std::to_string(i)));
    send_bytes(all);
    std::size_t at = 0;
    expect_log("unknown type: number-49\n");
    const std::string seen = log();
    for (int i = 0; i < 50; i++) {
        at = seen.find("unknown type: number-" + std::to_string(i) + "\n", at);
        ASSERT_NE(at, std::string::npos) << i;
    }
    EXPECT_TRUE(connected());
}

TEST_F(Link, TheLongestBodyFitsTheBuffer) {
    connect();
    const std::string body = R"({"type":"long","pad":")" + std::string(16384 - 24, 'x') + "\"}";
    ASSERT_EQ(body.size(), 16384u);
    for (int i = 0; i < 3; i++) {
        send_bytes(frame(body));
        expect_log("unknown type: long\n");
        log();
    }
    EXPECT_TRUE(connected());
}

TEST_F(Link, FaultyFramesEndTheConnection) {
    struct {
        std::string bytes;
        std::vector<const char *> lines;
    } const faults[] = {
        {be32(frame_magic) + be32(0) + "x", {"[ERROR] (arvok) invalid msg header, 0\n"}},
        {be32(frame_magic) + be32(16385) + "x", {"[ERROR] (arvok) invalid msg header, 16385\n"}},
        {be32(frame_magic) + be32(0xffffffff) + "x", {"[ERROR] (arvok) invalid msg header, -1\n"}},
        {be32(0x3f721fb6) + be32(4) + "xxxx",
         {"[ERROR] invalid magic 0x3f721fb6\n", "[ERROR] (arvok) invalid msg header, 0\n"}},
        {frame("no json, this"),
         {"<- no json, this (13)\n", "[ERROR] (arvok) invalid msg (not json format)\n"}},
        {frame(std::string("{\"a\0\":1}", 8) + "padding"),
         {"<- {\"a (3)\n", "[ERROR] (arvok) invalid msg (not json format)\n"}},
        // What follows a fault in the same segment is abandoned.
        {frame("no json, this") + frame(probe("abandoned")),
         {"[ERROR] (arvok) invalid msg (not json format)\n"}},
    };
    for (const auto &fault : faults) {
        connect();
        log();
        send_bytes(fault.bytes);
        for (const char *line : fault.lines)
            expect_log(line);
        expect_reconnection(10000);
        turn();
        EXPECT_EQ(log().find("abandoned"), std::string::npos);
    }
    EXPECT_EQ(ec->short_conn_count, 0);  // faults of ours to detect are not counted as broken connections
}

TEST_F(Link, ThreeShortConnectionsLeadToAPauseOfFourHours) {
    const auto break_after_negotiation = [this](long age) {
        connect();
        negotiate();
        ec->connect_time -= static_cast<std::int32_t>(age);
        shutdown(peer_, SHUT_RDWR);
        expect_log("[ERROR] (arvok) tcp connection broken\n");
        pump([] { return !connected(); });
        EXPECT_EQ(ec->connect_time, 0);
        uloop_timeout_cancel(&ec->reconnect_timer);
    };
    break_after_negotiation(0);
    break_after_negotiation(29);
    EXPECT_EQ(ec->short_conn_count, 2);
    connect();  // breaks before the negotiation: neither counts nor resets
    shutdown(peer_, SHUT_RDWR);
    pump([] { return !connected(); });
    EXPECT_EQ(ec->short_conn_count, 2);
    break_after_negotiation(30);
    EXPECT_EQ(ec->short_conn_count, 0);
    break_after_negotiation(0);
    break_after_negotiation(0);
    log();
    connect();
    negotiate();
    shutdown(peer_, SHUT_RDWR);
    expect_log("[WARNING] (arvok) connect time < 30s, count 3\n");
    expect_log("[WARNING] (arvok) refused count >= 3, reconnect after 4 hours\n");
    expect_reconnection(14400000);
    EXPECT_EQ(ec->short_conn_count, 0);
}

TEST_F(Link, SyncRestartsTheLinkInASecond) {
    connect();
    log();
    ASSERT_EQ(utask_set(nullptr, ec_arvoksync_on), 0);
    expect_reconnection(1000);
    const std::string seen = log();
    EXPECT_NE(seen.find("[DEBUG] ec_arvoksync_on ("), std::string::npos);
    EXPECT_NE(seen.find(")[INFO] (arvok) disconnect fd: "), std::string::npos);  // no line feed between them
}

TEST_F(Link, WithoutAConnectionMessagesAreReleased) {
    arvok_send(nullptr);
    arvok_send(new arvok_msg{json_object(json_ptr()), 0});
    arvok_send(arvok_msg_new("lost", 5000).release());
    EXPECT_FALSE(ec->ack_timer.pending);
    arvok_send_event(json_object().text("event", "none").take());
    EXPECT_EQ(log_text().find("->"), std::string::npos);
}

TEST_F(Link, ConnectionsThatFailAreTriedAgain) {
    close(listener_);
    listener_ = -1;
    ec_run();
    expect_log("[ERROR] (arvok) tcp connection broken\n");
    pump([] { return !connected(); });
    expect_armed(ec->reconnect_timer, 10000);
    EXPECT_EQ(ec->short_conn_count, 0);
    uloop_timeout_cancel(&ec->reconnect_timer);
    _strlcpy(g_ctx.gw_addr, "192.168.8.1\r", sizeof g_ctx.gw_addr);  // as a marker file may have it
    ec_run();
    EXPECT_NE(log_text().find("[ERROR] (arvok) create socket failed: "), std::string::npos);
    expect_armed(ec->reconnect_timer, 10000);
}

TEST_F(Link, ABodyThatNeverCameSpoilsNothingLater) {
    connect();
    send_bytes(frame(probe("waiting-waiting-waiting")).substr(0, 30));
    expect_log("wait for the TCP fragmentation");
    EXPECT_GT(ec->pending_len, 0);
    shutdown(peer_, SHUT_RDWR);
    pump([] { return !connected(); });
    connect();
    send_bytes(frame(probe("fresh")));
    expect_log("unknown type: fresh\n");
}

TEST_F(Link, WhatFollowsAFaultIsAbandonedAlsoWhenTheConnectionEndsWithIt) {
    connect();
    negotiate();
    log();
    std::string bytes = "no header, this";
    while (bytes.size() < 40000)
        bytes += frame(probe("abandoned"));
    send_bytes(bytes);
    shutdown(peer_, SHUT_WR);
    pump([] { return !connected(); });
    for (int i = 0; i < 20; i++)
        turn();
    EXPECT_EQ(log_text().find("abandoned"), std::string::npos);
    EXPECT_EQ(log_text().find("tcp connection broken"), std::string::npos);
    EXPECT_EQ(ec->short_conn_count, 0);
}

TEST_F(Link, AMessageLargerThanTheSocketTakesGoesOutWhole) {
    connect();
    arvok_msg_ptr msg = arvok_msg_new("large", 0);
    msg->root.text("pad", std::string(8000000, 'x').c_str());
    arvok_send(msg.release());
    std::string all;
    pump([&] {
        char buf[65536];
        for (ssize_t got; (got = recv(peer_, buf, sizeof buf, 0)) > 0;)
            all.append(buf, static_cast<std::size_t>(got));
        return all.size() > 8000000;
    });
    EXPECT_TRUE(all.ends_with("xxx\"}"));
}

TEST_F(Link, WithoutAGatewayItLooksAgain) {
    g_ctx.gw_addr_set = 0;
    g_ctx.gw_default_tried = 1;
    ec_run();  // the device record cannot be had here
    EXPECT_NE(log_text().find("[WARNING] (arvok) devinfo get failed\n"), std::string::npos);
    expect_armed(ec->reconnect_timer, 30000);
    EXPECT_EQ(g_ctx.gw_default_tried, 0);

    uloop_timeout_cancel(&ec->reconnect_timer);
    ec_run();
    EXPECT_NE(log_text().find("[INFO] (arvok) connect \"192.168.1.1:32768\" (1)\n"), std::string::npos);
    EXPECT_EQ(g_ctx.gw_default_tried, 1);
}

}  // namespace
}  // namespace arvok
