// The gateway link, and the platform's notifications, which go out on it.

#include <arpa/inet.h>

#include <cstring>

#include "arvok_client/frame.h"
#include "common/text.h"
#include "context.h"
#include "platform.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

class Link : public Stage {
  public:
    explicit Link(bool registered) : Stage("32768") {
        g_ctx.gw_addr_set = 1;
        _strlcpy(g_ctx.gw_addr, "192.168.1.1", sizeof g_ctx.gw_addr);
        ec_run();
        turn();
        if (!registered)
            return;
        uloop_timeout_cancel(&ec->ack_timer);
        ec->dh.aes_key.reset(static_cast<unsigned char *>(std::calloc(1, aes_key_size)));
        ec->linked = 1;
        ec->reports_pending = 1;
        uloop_timeout_set(&ec->keepalive_timer, 5000);
        ec->event_mask = event_online | event_offline | event_vsie | event_rolechange;
    }

  protected:
    void message(std::string_view line) override {
        const bool clear = byte_at(line, 0) == '=';
        const std::string text(line.substr(clear));
        const std::vector<char> frame =
            frame_encode(text.data(), static_cast<int>(text.size()), clear ? nullptr : ec->dh.aes_key.get());
        send({frame.data(), frame.size()});
    }
    void raw(std::string_view bytes) override { send_in_pieces(bytes); }
    void check() override {
        require(ec->stream.fd > 0 || ec->reconnect_timer.pending, "has given the gateway up");
        require(!ec->linked || ec->keepalive_timer.pending || ec->keepalive_ack_timer.pending,
                "does not keep the link alive");
    }
    std::size_t received(std::string_view bytes) override {
        std::size_t done = 0;
        while (bytes.size() - done > frame_header_size) {
            const int length = body_length(bytes.data() + done);
            const char *body = bytes.data() + done + frame_header_size;
            if (bytes.size() - done - frame_header_size < static_cast<std::size_t>(length))
                break;
            if (at_once_ && ec->stream.fd > 0)
                require(is_readable({body, static_cast<std::size_t>(length)}), "sends what is not JSON");
            done += frame_header_size + static_cast<std::size_t>(length);
        }
        if (ec->dh.aes_key)
            std::memcpy(last_key_, ec->dh.aes_key.get(), aes_key_size);
        return done;
    }

  private:
    // Status answers are longer than what the agent itself would take.
    static int body_length(const char *header) {
        std::uint32_t words[2];
        std::memcpy(words, header, sizeof words);
        require(ntohl(words[0]) == frame_magic, "sends a frame without its magic number");
        require(ntohl(words[1]) > 0 && ntohl(words[1]) < 1U << 30, "sends a frame of no length");
        return static_cast<int>(ntohl(words[1]));
    }
    // In clear, with the key of now, or with the one before, which this message may have ended.
    bool is_readable(const std::string &body) const {
        for (const unsigned char *key : {static_cast<const unsigned char *>(nullptr),
                                         static_cast<const unsigned char *>(ec->dh.aes_key.get()), last_key_})
            if (json_parse(frame_body_text(body.c_str(), static_cast<int>(body.size()), key).get()))
                return true;
        return false;
    }

    unsigned char last_key_[aes_key_size] = {};
};

class Events : public Link {
  public:
    Events() : Link(true) {
        subscribe(R"({"type":"ubus_subscribe","sequence":1,"mac":"a","object":"an.object","enable":1})", 0);
        subscribe(R"({"type":"ubus_subscribe","object":"an.object","enable":1})", 1);
    }

  protected:
    void message(std::string_view line) override { notify_from(line); }
    void raw(std::string_view bytes) override {
        constexpr const char *methods[] = {"devicestatus", "newdevice", "update", ""};
        const blob_ptr message = blob_of_bytes(bytes.substr(std::min<std::size_t>(2, bytes.size())));
        notify(byte_at(bytes, 0), methods[byte_at(bytes, 1) % std::size(methods)], message.get());
    }

  private:
    static void subscribe(const char *request, int from_cloud) {
        reply_context context{from_cloud, 0, nullptr};
        handle_arvok_msg(json_parse(request).get(), context);
    }
};

}  // namespace

void gateway(Input input) {
    Link(input.until('\n') != "0").play(input);
}

void events(Input input) {
    Events().play(input);
}

}  // namespace arvok::fuzz
