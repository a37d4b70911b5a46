#include "cloud_peer.h"

#include "lab/cloud/frame.h"

namespace arvok::bench {
namespace {

constexpr char server_key[] = "0123456789abcdef";

[[noreturn]] void unexpected(const char *method) {
    fail(std::string("the agent sent something else than ") + method);
}

std::string read_frame(connection &link) {
    return link.read_frame(lab::frame_header);
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
        exchange(*link_, "Activate", cipher::rsa, [](json::object &ack) {
            ack.text("DevID", "BENCH-1").text("DevToken", "0123456789abcdef0123456789abcdef");
        });
        challenge();
    }
    exchange(*link_, "Connect", cipher::rsa, [](json::object &ack) { ack.text("SKey", server_key); });
    const std::string heartbeat = read_frame(*link_);
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

std::string platform::round_trip(const std::string &request) {
    link_->write(request);
    for (;;) {
        std::string frame = read_frame(*link_);
        if (frame.size() != heartbeat_size_ || !answer_heartbeat(frame))
            return frame;
    }
}

void platform::serve() {
    while (link_ && link_->readable())
        if (const std::string frame = read_frame(*link_); frame.size() == heartbeat_size_)
            answer_heartbeat(frame);
}

std::string platform::encode(const json::value &message, cipher how) const {
    const char *key = how == cipher::rsa ? client_key_.c_str() : server_key;
    const std::string &text = message.text();
    return lab::make_frame(lab::make_body(how == cipher::plain ? text : lab::encrypt(key, text).value()));
}

json::document platform::decode(const std::string &frame, cipher how) const {
    std::optional<std::string> text = lab::open_body(std::string_view(frame).substr(lab::frame_header));
    if (text && how == cipher::rsa)
        text = key_.decrypt(*text);
    else if (text && how == cipher::aes)
        text = lab::decrypt(server_key, *text);
    return json::parse(text.value_or(""));
}

std::string platform::wrapped(const std::string &text) const {
    json::object request;
    request.text("RPCMethod", "SetPluginParams").text("ID", "1").text("Plugin_Name", "ArvokAP");
    request.text("Version", "1.0.7").text("Parameter", lab::to_base64(text));
    return encode(request.take(), cipher::aes);
}

void platform::bootstrap() {
    connection link = bootstrap_.accept();
    exchange(link, "Boot", cipher::rsa, [](json::object &ack) {
        const auto server = json::object().text("ServerAddr", "100.64.0.2").number("ServerPort", 8088).take();
        ack.add("BizPlat", json::array().add(server).take());
    });
}

void platform::challenge() {
    exchange(*link_, "GetChallengeCode", cipher::plain,
             [](json::object &ack) { ack.text("ChallengeCode", "0123456789abcdef0123456789abcdef"); });
}

// Takes one message of the enrolment and acknowledges it.
template <typename Fill>
void platform::exchange(connection &link, const char *method, cipher how, Fill fill) {
    const std::string frame = read_frame(link);
    const steady::time_point begin = steady::now();
    const json::document message = decode(frame, how);
    if (message["RPCMethod"].text() != method)
        unexpected(method);
    client_key_ = message["CKey"].text().value_or("");
    json::object ack;
    ack.text("Ack", method).number("Result", 0);
    fill(ack);
    const std::string answer = encode(ack.take(), how);
    own_time_ += steady::now() - begin;
    link.write(answer);
}

bool platform::answer_heartbeat(const std::string &frame) {
    if (decode(frame, cipher::aes)["RPCMethod"].text() != "Heartbeat")
        return false;
    link_->write(encode(json::object().text("Ack", "Heartbeat").number("Result", 0).take(), cipher::aes));
    return true;
}

}  // namespace arvok::bench
