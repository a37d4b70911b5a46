#include "cloud_peer.h"

#include <utility>

#include "cloud_client/frame.h"
#include "common/text.h"
#include "lab/cloud/frame.h"

namespace arvok {
namespace {

constexpr char server_key[] = "0123456789abcdef";

[[noreturn]] void unexpected(const char *method) {
    fail(std::string("the agent sent something else than ") + method);
}

std::vector<char> read_frame(connection &link) {
    return link.read_frame(cc_header_size, cc_frame_body_length);
}

}  // namespace

const char bootstrap_server[] = "100.64.0.1:8088";

platform::seconds platform::enrol(device known_as) {
    own_time_ = {};
    if (known_as == device::unknown)
        bootstrap();
    link_.emplace(business_.accept());
    challenge();
    if (known_as == device::unknown) {
        exchange(*link_, "Activate", cipher::rsa, [](json_object &ack) {
            ack.text("DevID", "BENCH-1").text("DevToken", "0123456789abcdef0123456789abcdef");
        });
        challenge();
    }
    exchange(*link_, "Connect", cipher::rsa, [](json_object &ack) { ack.text("SKey", server_key); });
    const std::vector<char> heartbeat = read_frame(*link_);
    heartbeat_size_ = heartbeat.size();
    if (!answer_heartbeat(heartbeat))
        unexpected("Heartbeat");
    return own_time_;
}

bool platform::take_known() {
    const bool offered = business_.pending();
    if (offered)
        enrol(device::known);
    return offered;
}

std::vector<char> platform::round_trip(const std::string &request) {
    link_->write(request.data(), request.size());
    for (;;) {
        std::vector<char> frame = read_frame(*link_);
        if (frame.size() != heartbeat_size_ || !answer_heartbeat(frame))
            return frame;
    }
}

void platform::serve() {
    while (link_ && link_->readable())
        if (const std::vector<char> frame = read_frame(*link_); frame.size() == heartbeat_size_)
            answer_heartbeat(frame);
}

std::string platform::encode(const cJSON *message, cipher how) const {
    const char *key = how == cipher::rsa ? client_key_.c_str() : server_key;
    std::string text = json_print(message).get();
    if (how != cipher::plain)
        text = lab::encrypt(key, text).value();
    return lab::make_frame(lab::make_body(text));
}

json_ptr platform::decode(const std::vector<char> &frame, cipher how) const {
    std::optional<std::string> text =
        lab::open_body({frame.data() + cc_header_size, frame.size() - cc_header_size});
    if (text && how == cipher::rsa)
        text = key_.decrypt(*text);
    else if (text && how == cipher::aes)
        text = lab::decrypt(server_key, *text);
    return text ? json_parse(text->c_str()) : nullptr;
}

std::string platform::wrapped(const std::string &text) const {
    const json_object request = std::move(json_object()
                                              .text("RPCMethod", "SetPluginParams")
                                              .text("ID", "1")
                                              .text("Plugin_Name", "ArvokAP")
                                              .text("Version", "1.0.7")
                                              .text("Parameter", lab::to_base64(text).c_str()));
    return encode(request.get(), cipher::aes);
}

void platform::bootstrap() {
    connection link = bootstrap_.accept();
    exchange(link, "Boot", cipher::rsa, [](json_object &ack) {
        json_ptr servers(cJSON_CreateArray());
        json_append(servers.get(),
                    json_object().text("ServerAddr", "100.64.0.2").number("ServerPort", 8088).take());
        ack.add("BizPlat", std::move(servers));
    });
}

void platform::challenge() {
    exchange(*link_, "GetChallengeCode", cipher::plain,
             [](json_object &ack) { ack.text("ChallengeCode", "0123456789abcdef0123456789abcdef"); });
}

// Takes one message of the enrolment and acknowledges it.
template <typename Fill>
void platform::exchange(connection &link, const char *method, cipher how, Fill fill) {
    const std::vector<char> frame = read_frame(link);
    const steady::time_point begin = steady::now();
    const json_ptr message = decode(frame, how);
    if (_strcmp(json_text(message.get(), "RPCMethod"), method) != 0)
        unexpected(method);
    client_key_ = text_or_empty(json_text(message.get(), "CKey"));
    json_object ack;
    ack.text("Ack", method).number("Result", 0);
    fill(ack);
    const std::string answer = encode(ack.get(), how);
    own_time_ += steady::now() - begin;
    link.write(answer.data(), answer.size());
}

bool platform::answer_heartbeat(const std::vector<char> &frame) {
    const json_ptr message = decode(frame, cipher::aes);
    if (_strcmp(json_text(message.get(), "RPCMethod"), "Heartbeat") != 0)
        return false;
    const json_object ack = std::move(json_object().text("Ack", "Heartbeat").number("Result", 0));
    const std::string answer = encode(ack.get(), cipher::aes);
    link_->write(answer.data(), answer.size());
    return true;
}

}  // namespace arvok
