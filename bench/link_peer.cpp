#include "link_peer.h"

#include <utility>

#include "arvok_client/frame.h"
#include "common/text.h"

namespace arvok {
namespace {

constexpr char link_port[] = "32768";
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
    key_.reset();
    receive();  // keyngreq
    send(R"({"type":"keyngack","sequence":0,"mac":"0200000000FE","keymode":"dh"})");
    const json_ptr dh = receive();
    const cJSON *data = json_member(dh.get(), "data");
    dh_key key;
    key.p = _get_json_str(data, "dh_p");
    key.g = _get_json_str(data, "dh_g");
    key.client_pub = _get_json_str(data, "dh_key");
    gen_server_dh_aes_key(key);
    send(R"({"type":"dh","sequence":1,"mac":"0200000000FE","data":{"dh_key":")" +
         std::string(key.server_pub.get()) + R"("}})");
    key_ = std::move(key.aes_key);
    receive();  // dev_reg, whose acknowledgement would set off reports
}

std::vector<char> gateway::encode(const std::string &text) const {
    return frame_encode(text.c_str(), static_cast<int>(text.size()), key_.get());
}

std::vector<char> gateway::round_trip(const std::vector<char> &request) {
    write(request);
    return next_frame();
}

std::vector<char> gateway::next_frame() {
    for (;;) {
        std::vector<char> frame = read_frame();
        if (frame.size() > keepalive_max || !answer_keepalive(frame))
            return frame;
    }
}

json_ptr gateway::decode(std::vector<char> frame) const {
    frame.push_back('\0');
    const int len = static_cast<int>(frame.size()) - frame_header_size - 1;
    return json_parse(frame_body_text(frame.data() + frame_header_size, len, key_.get()).get());
}

void gateway::serve() {
    while (link_ && link_->readable())
        if (const std::vector<char> frame = read_frame(); frame.size() <= keepalive_max)
            answer_keepalive(frame);
}

std::vector<char> gateway::read_frame() {
    return link_->read_frame(frame_header_size, frame_body_length);
}

bool gateway::answer_keepalive(const std::vector<char> &frame) {
    const json_ptr message = decode(frame);
    if (_strcmp(json_text(message.get(), "type"), "keepalive") != 0)
        return false;
    send(R"({"type":"ack","sequence":)" + std::to_string(_get_json_int(message.get(), "sequence", -1)) + "}");
    return true;
}

}  // namespace arvok
