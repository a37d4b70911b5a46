#pragma once
/// The agent's end of the cloud connection, and a name service that answers as the test says.

#include "cloud_client/cloud_client.h"
#include "cloud_client/frame.h"
#include "common/crypto.h"
#include "peer_fixture.h"

namespace arvok {

/// What a name resolves to; a name that is not there fails. The look-up takes `seconds` on the uptime clock.
struct name_answer {
    std::vector<std::string> addresses;
    long seconds = 0;
};
extern std::vector<std::pair<std::string, name_answer>> names;
/// Host names asked for since it was last cleared.
extern std::vector<std::string> names_asked;

class Cloud : public Peer {
  protected:
    Cloud() : Peer(8088, cc_header_size) {}

    void SetUp() override {
        Peer::SetUp();
        names.clear();
        names_asked.clear();
        g_ctx.bss_server_set = 1;
        str_to_server("bss.example:8088", g_ctx.bss_server);
        cc_init();
        log();
    }
    void TearDown() override {
        cc_done();
        Peer::TearDown();
    }

    static bool connected() { return cc->stream.fd > 0; }

    // Connects to this test in one of the statuses in which a connection begins, and drops the first message.
    void connect(std::int32_t status) {
        cc->resolver.current = {"127.0.0.1", "8088", server_tried};
        cc->server_kind = server_current;
        cc->status = status;
        cc_run();
        pump(connected);
        accept_one();
        receive_frame();
        EXPECT_TRUE(cc->ack_timer.pending);
    }
    void connect_fully() {
        connect(cc_challenge);
        cc->status = cc_connected;
        cc->server_key = _strdup("0123456789abcdef");
        cc->challenge = _strdup("of this connection");
    }

    static std::string frame(const std::string &body) {
        return "QZSGWMP2" + be32(static_cast<std::uint32_t>(body.size())) + body;
    }
    static std::string base64(const std::string &data) {
        text_ptr text;
        _do_b64_code(data.data(), static_cast<int>(data.size()), text, true);
        return text.get();
    }
    // A message's frame, encrypted as the connection's status asks for.
    static std::string message(std::string json) {
        const text_ptr &key = cc->status == cc_connected ? cc->server_key : cc->client_key;
        text_ptr cipher;
        int size = 0;
        if (cc->status != cc_challenge) {
            _do_aes_ecb_crypt(json.data(), static_cast<int>(json.size()), cipher, size,
                              reinterpret_cast<const unsigned char *>(key.get()), true);
            json.assign(cipher.get(), static_cast<std::size_t>(size));
        }
        return frame(base64(json) + "\r\n");
    }
    // The agent's next message, as long as it does not take the platform's private key to read it.
    std::string receive() {
        auto [header, body] = receive_frame();
        EXPECT_EQ(header.substr(0, 8), "QZSGWMP2");
        EXPECT_EQ(body.substr(body.size() - 2), "\r\n");
        int size = 0;
        return text_or_empty(cc_frame_body_text(*cc, body.data(), static_cast<int>(body.size()), size).get());
    }

    void expect_reconnection(int ms) {
        pump([] { return !connected(); });
        expect_armed(cc->reconnect_timer, ms);
        EXPECT_FALSE(cc->ack_timer.pending);
        EXPECT_FALSE(cc->heartbeat_timer.pending);
        EXPECT_EQ(cc->client_key, nullptr);
        EXPECT_EQ(cc->server_key, nullptr);
        EXPECT_EQ(cc->challenge, nullptr);
        expect_log("[INFO] (cloud) disconnect fd: ");
        expect_closed();
    }
    // As left by the retry policy's `count`-th attempt.
    void expect_retry(int count) {
        EXPECT_EQ(cc->retry_count, count);
        EXPECT_FALSE(connected());
        EXPECT_TRUE(cc->reconnect_timer.pending);
    }
};

}  // namespace arvok
