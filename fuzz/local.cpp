// The server for clients on the LAN.

#include <arpa/inet.h>

#include <cstring>

#include "common/crypto.h"
#include "context.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

class Local : public Stage {
  public:
    Local() : Stage("client") {
        ls_run();
        connect();
    }

  protected:
    void message(std::string_view line) override {
        if (byte_at(line, 0) == '&')
            return connect();
        if (byte_at(line, 0) == '=')
            return send_framed(request_with(line.substr(1)));
        send_framed(std::string(line));
    }
    void raw(std::string_view bytes) override { send_in_pieces(bytes); }
    std::size_t received(std::string_view bytes) override {
        std::size_t done = 0;
        for (std::uint32_t length; bytes.size() - done > sizeof length; done += length) {
            std::memcpy(&length, bytes.data() + done, sizeof length);
            length = ntohl(length);
            require(length > 0 && length < 1U << 30, "sends a frame of no length");
            if (bytes.size() - done - sizeof length < length)
                break;
            done += sizeof length;
            require(json_parse(std::string(bytes.substr(done, length)).c_str()) != nullptr,
                    "sends what is not JSON");
        }
        return done;
    }

  private:
    // As if somebody waited at the port.
    void connect() {
        ls->listener.cb(&ls->listener, ULOOP_READ);
        ls->clients.front()->stream.unsent_max = unsent_max / 8;
        turn();
    }
    static std::string request_with(std::string_view command) {
        text_ptr parameter;
        _do_b64_code(command.data(), static_cast<int>(command.size()), parameter, true);
        return R"({"RPCMethod":"Post1","ID":1,"Parameter":")" + std::string(parameter.get()) + "\"}";
    }
    void send_framed(const std::string &body) {
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(body.size()));
        send(std::string(reinterpret_cast<const char *>(&length), sizeof length) + body);
    }
};

}  // namespace

void local(Input input) {
    Local().play(input);
}

}  // namespace arvok::fuzz
