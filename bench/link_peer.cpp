#include "link_peer.h"

#include "gateway/frame.h"
#include "lab/gateway/crypto.h"

namespace arvok::bench {
namespace {

constexpr char link_port[] = "32768";
const std::size_t header_size = arvok::gateway::link_frames.header_size;
constexpr std::size_t keepalive_max = 100;  // no other message's frame is as short as that

}  // namespace

const char gateway_address[] = "192.168.1.1";

gateway::gateway() : listener_(gateway_address, link_port) {}

void gateway::await_registration() {
    link_.emplace(listener_.accept());
    register_agent();
}

bool gateway::take_registration() {
    const bool offered = listener_.pending();
    if (offered)
        await_registration();
    return offered;
}

void gateway::register_agent() {
    cipher_.reset();
    receive();  // keyngreq
    send(R"({"type":"keyngack","sequence":0,"mac":"0200000000FE","keymode":"dh"})");
    const json::document dh = receive();
    const auto value = [data = dh["data"]](const char *name) {
        return data[name].text().value_or("").data();
    };
    std::string error;
    const auto answer = lab::answer_dh(value("dh_p"), value("dh_g"), value("dh_key"), error);
    if (!answer)
        fail("dh: " + error);
    send(R"({"type":"dh","sequence":1,"mac":"0200000000FE","data":{"dh_key":")" + answer->public_value +
         R"("}})");
    cipher_.emplace(aes_mode::cbc, aes_key{answer->key});
    receive();  // dev_reg, whose acknowledgement would set off reports
}

std::string gateway::encode(const std::string &text) {
    std::string frame = text;
    arvok::gateway::make_frame(frame, cipher_ ? &*cipher_ : nullptr);
    return frame;
}

std::string gateway::round_trip(const std::string &request) {
    write(request);
    return next_frame();
}

std::string gateway::next_frame() {
    for (;;) {
        std::string frame = read_frame();
        if (frame.size() > keepalive_max || !answer_keepalive(frame))
            return frame;
    }
}

json::document gateway::decode(const std::string &frame) {
    std::string body = frame.substr(header_size);
    if (cipher_)
        cipher_->decrypt(body);
    return json::parse(body);
}

void gateway::serve() {
    while (link_ && link_->readable())
        if (const std::string frame = read_frame(); frame.size() <= keepalive_max)
            answer_keepalive(frame);
}

std::string gateway::read_frame() {
    return link_->read_frame(header_size);
}

bool gateway::answer_keepalive(const std::string &frame) {
    const json::document message = decode(frame);
    if (message["type"].text() != "keepalive")
        return false;
    send(R"({"type":"ack","sequence":)" + message["sequence"].print() + "}");
    return true;
}

}  // namespace arvok::bench
