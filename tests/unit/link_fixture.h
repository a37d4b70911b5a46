#pragma once
/// The agent's end of the gateway link.

#include "arvok_client/arvok_client.h"
#include "arvok_client/frame.h"
#include "common/clock.h"
#include "peer_fixture.h"

namespace arvok {

inline std::string frame(const std::string &body) {
    return be32(frame_magic) + be32(static_cast<std::uint32_t>(body.size())) + body;
}

// A message that shows in the log that it was handled, and nothing else.
inline std::string probe(const std::string &name) {
    return R"({"type":")" + name + R"("})";
}

class Link : public Peer {
  protected:
    Link() : Peer(32768, frame_header_size) {}

    void SetUp() override {
        Peer::SetUp();
        g_ctx.gw_addr_set = 1;
        _strlcpy(g_ctx.gw_addr, "127.0.0.1", sizeof g_ctx.gw_addr);
        ec_init();
    }
    void TearDown() override {
        ec_done();
        Peer::TearDown();
    }

    void connect() {
        ec_run();
        accept_one();
        EXPECT_EQ(receive(), R"({"type":"keyngreq","sequence":0,"mac":"021122334455","version":"V2019.1.0",)"
                             R"("keymodelist":[{"keymode":"dh"}]})");
    }
    // The body of the agent's next frame.
    std::string receive(const unsigned char *key = nullptr) {
        const auto [header, body] = receive_frame();
        EXPECT_EQ(header.substr(0, 4), "\x3f\x72\x1f\xb5");
        return text_or_empty(frame_body_text(body.c_str(), static_cast<int>(body.size()), key).get());
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

    static bool connected() { return ec->stream.fd > 0; }
    void expect_reconnection(int ms) {
        pump([] { return !connected(); });
        expect_armed(ec->reconnect_timer, ms);
        for (uloop_timeout *timer : {&ec->ack_timer, &ec->keepalive_timer, &ec->keepalive_ack_timer})
            EXPECT_FALSE(timer->pending);
        EXPECT_EQ(ec->linked, 0);
        EXPECT_EQ(ec->dh.aes_key, nullptr);
        expect_closed();
    }
};

}  // namespace arvok
