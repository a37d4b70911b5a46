// The link's framing under every split of the bytes, its faults, its timers and its reconnection policy: the
// agent's transport against a raw socket in the same process, in a network namespace of its own.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "arvok_client/arvok_client.h"
#include "arvok_client/frame.h"
#include "common/clock.h"
#include "common/text.h"
#include "context.h"
#include "own_network.h"
#include "utask/utask.h"

namespace arvok {
namespace {

std::string be32(std::uint32_t n) {
    n = htonl(n);
    return std::string(reinterpret_cast<char *>(&n), 4);
}

std::string frame(const std::string &body) {
    return be32(frame_magic) + be32(static_cast<std::uint32_t>(body.size())) + body;
}

// A message that shows in the log that it was handled, and nothing else.
std::string probe(const std::string &name) {
    return R"({"type":")" + name + R"("})";
}

class Transport : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_TRUE(enter_own_network()) << "no network namespaces here"; }

    void SetUp() override {
        g_ctx = {};
        g_ctx.gw_addr_set = 1;
        _strlcpy(g_ctx.gw_addr, "127.0.0.1", sizeof g_ctx.gw_addr);
        g_ctx.devinfo.reset(static_cast<qzcap_devinfo *>(qzcap_calloc(1, sizeof(qzcap_devinfo))));
        g_ctx.devinfo->mac = qzcap_strdup("021122334455");
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(32768);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(listen(listener_, 4), 0);
        ::testing::internal::CaptureStderr();
        uloop_init();
        utask_init();
        ec_init();
    }
    void TearDown() override {
        ec_done();
        utask_done();
        if (peer_ >= 0)
            close(peer_);
        close(listener_);
        ::testing::internal::GetCapturedStderr();
        g_ctx = {};
    }

    // Turns the loop until `done`, or fails after two seconds.
    void pump(const std::function<bool()> &done) {
        for (int turns = 0; turns < 2000; turns++) {
            if (done())
                return;
            uloop_run_timeout(1);
        }
        FAIL() << "did not happen; log so far:\n" << log_text();
    }
    void turn() {
        for (int i = 0; i < 3; i++)
            uloop_run_timeout(1);
    }
    void connect() {
        ec_run();
        if (peer_ >= 0)
            close(peer_);
        peer_ = accept(listener_, nullptr, nullptr);
        ASSERT_GE(peer_, 0);
        fcntl(peer_, F_SETFL, O_NONBLOCK);
        EXPECT_EQ(receive(), R"({"type":"keyngreq","sequence":0,"mac":"021122334455","version":"V2019.1.0",)"
                             R"("keymodelist":[{"keymode":"dh"}]})");
    }
    void send_bytes(const std::string &bytes) {
        ASSERT_EQ(::send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The body of the agent's next frame.
    std::string receive(const unsigned char *key = nullptr) {
        pump([this] {
            char buf[4096];
            const ssize_t got = recv(peer_, buf, sizeof buf, 0);
            if (got > 0)
                inbox_.append(buf, static_cast<std::size_t>(got));
            return inbox_.size() >= 8 && inbox_.size() >= 8 + body_size();
        });
        if (inbox_.size() < 8 || inbox_.size() < 8 + body_size())
            return "";
        const std::size_t size = body_size();
        EXPECT_EQ(inbox_.substr(0, 4), "\x3f\x72\x1f\xb5");
        const std::string body = inbox_.substr(8, size);
        inbox_.erase(0, 8 + size);
        return frame_body_text(body.c_str(), static_cast<int>(size), key).get();
    }
    std::size_t body_size() const {
        std::uint32_t n;
        std::memcpy(&n, inbox_.data() + 4, 4);
        return ntohl(n);
    }
    // Agrees a key as the gateway does and takes the registration.
    dh_key negotiate() {
        dh_key key;
        send_bytes(frame(R"({"type":"keyngack","keymode":"dh"})"));
        const json_ptr dh = json_parse(receive().c_str());
        const cJSON *data = json_member(dh.get(), "data");
        key.p = _get_json_str(data, "dh_p");
        key.g = _get_json_str(data, "dh_g");
        key.client_pub = _get_json_str(data, "dh_key");
        gen_server_dh_aes_key(key);
        send_bytes(
            frame(R"({"type":"dh","data":{"dh_key":")" + std::string(key.server_pub.get()) + R"("}})"));
        const json_ptr dev_reg = json_parse(receive(key.aes_key.get()).c_str());
        EXPECT_STREQ(json_text(dev_reg.get(), "type"), "dev_reg");
        EXPECT_EQ(_get_json_int(dev_reg.get(), "sequence", -1), 2);
        return key;
    }

    // Everything logged since the last call.
    std::string log() {
        std::string text = log_text();
        log_.clear();
        return text;
    }
    const std::string &log_text() {
        log_ += ::testing::internal::GetCapturedStderr();
        ::testing::internal::CaptureStderr();
        return log_;
    }
    void expect_log(const std::string &line) {
        pump([&] { return log_text().find(line) != std::string::npos; });
    }
    static bool connected() { return ec->stream.fd > 0; }
    static void expect_armed(uloop_timeout &timer, int ms) {
        const int left = uloop_timeout_remaining(&timer);
        EXPECT_LE(left, ms);
        EXPECT_GT(left, ms - 1500);
    }
    static void fire(uloop_timeout &timer) {
        uloop_timeout_cancel(&timer);
        timer.cb(&timer);
    }
    void expect_reconnection(int ms) {
        pump([] { return !connected(); });
        expect_armed(ec->reconnect_timer, ms);
        for (uloop_timeout *timer : {&ec->ack_timer, &ec->keepalive_timer, &ec->keepalive_ack_timer})
            EXPECT_FALSE(timer->pending);
        EXPECT_EQ(ec->linked, 0);
        EXPECT_EQ(ec->dh.aes_key, nullptr);
        char byte;
        pump([&] { return recv(peer_, &byte, 1, 0) == 0; });
    }

    int listener_ = -1, peer_ = -1;
    std::string inbox_, log_;
};

TEST_F(Transport, AFrameInTwoSegmentsIsHandledWhereverItIsSplitBehindTheHeader) {
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

TEST_F(Transport, AHeaderWithUpToEightBodyBytesLosesItsLength) {
    connect();
    const std::string whole = frame(probe("lost"));
    send_bytes(whole.substr(0, 12));  // header and four bytes of the body
    turn();
    EXPECT_EQ(ec->pending_len, 0);
    EXPECT_TRUE(connected());
    send_bytes(whole.substr(12));  // the body is now taken for a header
    expect_log("[ERROR] invalid magic 0x7b227479\n");
    expect_log("[ERROR] (arvok) invalid msg header, 0\n");
    expect_reconnection(10000);
}

TEST_F(Transport, ByteAtATimeEndsInTheLostHeader) {
    connect();
    for (char byte : frame(probe("slowly"))) {
        if (::send(peer_, &byte, 1, MSG_NOSIGNAL) != 1)
            break;
        turn();
    }
    expect_log("[ERROR] invalid magic");
    expect_reconnection(10000);
}

TEST_F(Transport, FiftyFramesInOneSegment) {
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

TEST_F(Transport, TheLongestBodyFitsTheBuffer) {
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

TEST_F(Transport, FaultyFramesEndTheConnection) {
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

TEST_F(Transport, MessagesThatAreNoRequestsAreOnlyLogged) {
    connect();
    log();
    for (const char *body : {"[1,2,3]", "\"a text\"", R"({"type":5,"x":1})", R"({"type":"CFG"})"})
        send_bytes(frame(body) + frame(probe("next")));
    expect_log("[ERROR] (arvok) unknown type: CFG\n");
    turn();
    EXPECT_NE(log().find("[ERROR] (arvok) type not found\n"), std::string::npos);
    EXPECT_TRUE(connected());
    EXPECT_TRUE(ec->ack_timer.pending);  // none of them ends the wait for the key answer
}

TEST_F(Transport, TheKeyAnswerIsAwaitedForFiveSeconds) {
    connect();
    expect_armed(ec->ack_timer, 5000);
    for (const char *rejected : {R"({"type":"keyngack"})", R"({"type":"keyngack","keymode":"DH"})",
                                 R"({"type":"keyngack","keymode":7})"})
        send_bytes(frame(rejected));
    expect_log("[ERROR] unsupported keymode\n");
    expect_log("[ERROR] invalid keymode\n");
    EXPECT_TRUE(ec->ack_timer.pending);
    EXPECT_EQ(ec->connect_time, 0);
    fire(ec->ack_timer);
    expect_log("[ERROR] (arvok) wait ack timeout\n");
    expect_reconnection(10000);
}

TEST_F(Transport, NegotiationRegistersAndStartsTheKeepalives) {
    connect();
    const dh_key key = negotiate();
    EXPECT_EQ(ec->linked, 1);
    EXPECT_EQ(ec->reports_pending, 1);
    EXPECT_FALSE(ec->ack_timer.pending);  // the dispatcher took the registration's deadline back
    expect_armed(ec->keepalive_timer, 1000);
    log();

    for (int sequence = 3; sequence < 6; sequence++) {
        fire(ec->keepalive_timer);
        EXPECT_EQ(receive(key.aes_key.get()), R"({"type":"keepalive","sequence":)" +
                                                  std::to_string(sequence) + R"(,"mac":"021122334455"})");
        expect_armed(ec->keepalive_ack_timer, 20000);
        EXPECT_FALSE(ec->keepalive_timer.pending);
        const std::string ack = R"({"type":"ack","sequence":)" + std::to_string(sequence) + "}";
        const std::vector<char> sealed =
            frame_encode(ack.c_str(), static_cast<int>(ack.size()), key.aes_key.get());
        send_bytes({sealed.begin(), sealed.end()});
        pump([] { return ec->keepalive_timer.pending; });
        expect_armed(ec->keepalive_timer, 5000);
        EXPECT_FALSE(ec->keepalive_ack_timer.pending);
    }
    turn();
    EXPECT_EQ(log(), "");  // keepalives and their acknowledgements are never logged
    EXPECT_EQ(ec->reports_pending, 1);

    fire(ec->keepalive_timer);
    fire(ec->keepalive_ack_timer);
    expect_log("[ERROR] (arvok) wait keepalive ack timeout\n");
    receive(key.aes_key.get());
    expect_reconnection(10000);
}

TEST_F(Transport, ADhAnswerThatDoesNotFitIsNotConsumed) {
    connect();
    send_bytes(frame(R"({"type":"keyngack","keymode":"dh"})"));
    receive();
    struct {
        const char *data, *line;
    } const rejected[] = {
        {"{}", "[ERROR] invalid dh_key\n"},
        {"5", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":5})", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":"Aw==","dh_p":"Aw=="})", "[ERROR] invalid dh_p\n"},
        {R"({"dh_key":"Aw==","dh_g":"Aw=="})", "[ERROR] invalid dh_g\n"},
    };
    for (const auto &r : rejected) {
        log();
        send_bytes(frame(R"({"type":"dh","data":)" + std::string(r.data) + "}"));
        expect_log(r.line);
        EXPECT_EQ(ec->linked, 0);
    }
    // An echo of another type is ignored; without a key from it the link goes on in the clear.
    send_bytes(frame(R"({"type":"dh","data":{"dh_key":"????","dh_p":7}})"));
    const json_ptr dev_reg = json_parse(receive().c_str());
    EXPECT_STREQ(json_text(dev_reg.get(), "type"), "dev_reg");
    EXPECT_EQ(_get_json_int(json_member(dev_reg.get(), "data"), "supportMesh", -1), 0);
    EXPECT_EQ(json_member(json_member(dev_reg.get(), "data"), "mapAlmac"), nullptr);
    EXPECT_EQ(ec->dh.aes_key, nullptr);
}

TEST_F(Transport, ThreeShortConnectionsLeadToAPauseOfFourHours) {
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

TEST_F(Transport, SyncRestartsTheLinkInASecond) {
    connect();
    log();
    ASSERT_EQ(utask_set(nullptr, ec_arvoksync_on), 0);
    expect_reconnection(1000);
    const std::string seen = log();
    EXPECT_NE(seen.find("[DEBUG] ec_arvoksync_on ("), std::string::npos);
    EXPECT_NE(seen.find(")[INFO] (arvok) disconnect fd: "), std::string::npos);  // no line feed between them
}

TEST_F(Transport, WithoutAConnectionMessagesAreReleased) {
    arvok_send(nullptr);
    arvok_send(new arvok_msg{json_object(json_ptr()), 0});
    arvok_send(arvok_msg_new("lost", 5000).release());
    EXPECT_FALSE(ec->ack_timer.pending);
    arvok_send_event(json_object().text("event", "none").take());
    EXPECT_EQ(log_text().find("->"), std::string::npos);
    EXPECT_EQ(send_arvok_wan_report(nullptr), 0);  // not registered: nothing is built
}

TEST_F(Transport, ConnectionsThatFailAreTriedAgain) {
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

TEST_F(Transport, ErrorsAreRecordedCutAndLogged) {
    arvok_set_error(10004, "%s failed: %s", "call", std::string(300, 'x').c_str());
    EXPECT_EQ(ec->errcode, 10004);
    EXPECT_EQ(std::string(ec->errmsg), "call failed: " + std::string(255 - 13, 'x'));
    EXPECT_NE(log_text().find("[ERROR] (10004) call failed: xxx"), std::string::npos);
    EXPECT_STREQ(json_print(arvok_error_item(10001, "unrecognized request").get()).get(),
                 R"({"errmsg":"unrecognized request"})");
    EXPECT_EQ(ec->errcode, 10001);
}

TEST_F(Transport, MessagesThroughTheCloudNeverTouchTheLinksHandshake) {
    for (const char *type : {"keyngack", "dh", "ack"}) {
        reply_context context{1, 0, nullptr};
        const json_ptr root =
            json_parse((R"({"type":")" + std::string(type) + R"(","keymode":"dh","sequence":-1})").c_str());
        EXPECT_EQ(handle_arvok_msg(root.get(), context), 0) << type;
        EXPECT_FALSE(context.reply);
        EXPECT_FALSE(ec->keepalive_timer.pending);
    }
}

}  // namespace
}  // namespace arvok
