#pragma once
/// The agent's end of the gateway link against a raw socket in the same process, in a network namespace of
/// its own. The loop turns only when the test says so, so that every split of the bytes and every timer can
/// be looked at.

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

inline std::string be32(std::uint32_t n) {
    n = htonl(n);
    return std::string(reinterpret_cast<char *>(&n), 4);
}

inline std::string frame(const std::string &body) {
    return be32(frame_magic) + be32(static_cast<std::uint32_t>(body.size())) + body;
}

// A message that shows in the log that it was handled, and nothing else.
inline std::string probe(const std::string &name) {
    return R"({"type":")" + name + R"("})";
}

class Link : public ::testing::Test {
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

}  // namespace arvok
