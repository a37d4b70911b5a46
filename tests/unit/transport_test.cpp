// The link's framing under every split of the bytes, its faults and when it is tried again.

#include "link_peer.h"

namespace arvok::gateway {
namespace {

TEST_F(Link, AFrameInTwoSegmentsIsHandledWhereverItIsSplitBehindTheHeader) {
    connect();
    const std::string body = probe("split-here-please"), whole = frame(body);
    // Up to eight bytes wait for more; with one to eight bytes of the body the header is taken and its length
    // lost (that case has its own test); beyond that the body is waited for.
    for (std::size_t split = 1; split < whole.size(); split++) {
        if (split > 8 && split <= 16)
            continue;
        log();
        send_bytes(whole.substr(0, split));
        turn();
        EXPECT_EQ(log(), split <= 8
                             ? ""
                             : "[INFO] (arvok) wait for the TCP fragmentation, " + std::to_string(split - 8) +
                                   "/" + std::to_string(body.size()) + "\n");
        send_bytes(whole.substr(split));
        expect_log("[INFO] (arvok) <- " + body + " (" + std::to_string(body.size()) + ")\n");
    }
    // A body that never came spoils nothing on the next connection.
    send_bytes(whole.substr(0, 20));
    expect_log("wait for the TCP fragmentation");
    shutdown(peer_.get(), SHUT_RDWR);
    expect_reconnection(10000);
    connect();
    const std::string longest = R"({"type":"long","pad":")" + std::string(16384 - 24, 'x') + "\"}";
    send_bytes(frame(longest) + frame(probe("behind-it")));
    expect_log("unknown type: long\n");
    expect_log("unknown type: behind-it\n");
}

TEST_F(Link, AHeaderWithUpToEightBodyBytesLosesItsLength) {
    const std::string whole = frame(probe("lost"));
    for (const std::size_t split : {9u, 12u, 16u}) {
        connect();
        log();
        send_bytes(whole.substr(0, split));
        turn();
        EXPECT_EQ(log(), "");
        send_bytes(whole.substr(split));  // the body is now taken for a header
        expect_log("[ERROR] invalid magic 0x7b227479\n[ERROR] (arvok) invalid msg header, 0\n");
        expect_reconnection(10000);
    }
}

TEST_F(Link, FaultyFramesEndTheConnection) {
    const struct {
        std::string bytes;
        const char *lines;
    } faults[] = {
        {be32(0x3f721fb5) + be32(0) + "x", "[ERROR] (arvok) invalid msg header, 0\n"},
        {be32(0x3f721fb5) + be32(16385) + "x", "[ERROR] (arvok) invalid msg header, 16385\n"},
        {be32(0x3f721fb5) + be32(0xffffffff) + "x", "[ERROR] (arvok) invalid msg header, -1\n"},
        {be32(0x3f721fb6) + be32(4) + "xxxx",
         "[ERROR] invalid magic 0x3f721fb6\n[ERROR] (arvok) invalid msg header, 0\n"},
        {frame(std::string("{\"a\0\":1}", 8) + "padding"),
         "<- {\"a (3)\n[ERROR] (arvok) invalid msg (not json format)\n"},
        // What follows a fault in the same segment is abandoned, also when the connection ends with it.
        {frame("no json, this") + frame(probe("abandoned")),
         "<- no json, this (13)\n[ERROR] (arvok) invalid msg (not json format)\n"},
        {"no header, this" + std::string(20000, 'x') + frame(probe("abandoned")), "[ERROR] invalid magic"},
    };
    for (const auto &fault : faults) {
        connect();
        log();
        send_bytes(fault.bytes);
        shutdown(peer_.get(), SHUT_WR);
        expect_log(fault.lines);
        expect_reconnection(10000);
        turn();
        EXPECT_FALSE(has_logged("abandoned"));
        EXPECT_FALSE(has_logged("connection broken"));  // a fault of ours to detect is no broken connection
    }
}

TEST_F(Link, ThreeShortConnectionsLeadToAPauseOfFourHours) {
    const auto break_after = [this](bool negotiated, long age) {
        connect();
        if (negotiated)
            negotiate();
        around.uptime += age;
        if (negotiated)
            fire(1000);  // its acknowledgement is waited for, and no more once the connection has gone
        log();
        shutdown(peer_.get(), SHUT_RDWR);
        expect_log("[INFO] (arvok) disconnect");
    };
    break_after(true, 0);
    break_after(true, 29);
    EXPECT_TRUE(has_logged("[WARNING] (arvok) connect time < 30s, count 2\n"));
    break_after(false, 0);  // before the negotiation: neither counts nor resets
    EXPECT_FALSE(has_logged("connect time"));
    break_after(true, 30);
    break_after(true, 0);
    EXPECT_TRUE(has_logged("count 1\n"));
    break_after(true, 0);
    expect_reconnection(10000);
    break_after(true, 0);
    EXPECT_TRUE(has_logged("count 3\n[WARNING] (arvok) refused count >= 3, reconnect after 4 hours\n"));
    expect_reconnection(14400000);
    break_after(true, 0);
    EXPECT_TRUE(has_logged("count 1\n"));
}

TEST_F(Link, SyncStartsTheLinkOverInASecond) {
    connect();
    log();
    agent_->sync_turned_on();
    expect_reconnection(1000);
    EXPECT_TRUE(has_logged("[DEBUG] ec_arvoksync_on ("));
    EXPECT_TRUE(has_logged(")[INFO] (arvok) disconnect fd: "));  // no line feed between them
}

TEST_F(Link, ConnectionsThatFailAreTriedAgain) {
    listener_.reset();
    agent_->start();
    expect_log("[ERROR] (arvok) tcp connection broken\n");
    EXPECT_TRUE(is_armed(10000));
    agent_->start();
    EXPECT_FALSE(is_armed(10000));  // one attempt at a time

    build({"192.168.8.1\r"});  // as a marker file may have it
    agent_->start();
    EXPECT_TRUE(has_logged("[ERROR] (arvok) create socket failed: Invalid argument\n"));
    EXPECT_TRUE(is_armed(10000));

    build({});
    around.device_known = false;
    agent_->start();
    EXPECT_TRUE(has_logged("[INFO] (arvok) connect \"192.168.1.1:32768\" (1)\n"));
    agent_->start();  // looks for one, which takes the device's record
    EXPECT_TRUE(has_logged("[WARNING] (arvok) devinfo get failed\n"));
    EXPECT_TRUE(is_armed(30000));
}

}  // namespace
}  // namespace arvok::gateway
