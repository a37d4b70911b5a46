// What leaves the platform: encryption and framing, and the faults on the way.

#include <utility>

#include "cloud.h"

namespace arvok::lab {

// A device takes what fits the step that its own last message began.
Cloud::Cipher Cloud::cipher_towards(const Link &link) {
    switch (link.state) {
        case State::connected:
            return Cipher::server_key;
        case State::boot:
        case State::activating:
        case State::connecting:
            return Cipher::client_key;
        default:
            return Cipher::plain;
    }
}

// The frame of a message as the fault, if there is one, leaves it; empty when the encryption fails.
std::string Cloud::frame_of(const Link &link, const cJSON *message, Cipher cipher, const Fault *fault) {
    const FaultKind kind = fault ? fault->kind : FaultKind::none;
    std::string text = json_text(message);
    if (kind == FaultKind::bad_json)
        text.pop_back();
    std::string key = cipher == Cipher::server_key ? link.server_key : link.client_key;
    if (kind == FaultKind::wrong_key) {
        key.resize(aes_key_size);
        for (char &byte : key)
            byte = static_cast<char>(~byte);
    }
    if (cipher != Cipher::plain || kind == FaultKind::wrong_key) {
        std::optional<std::string> sealed = encrypt(key, text);
        if (!sealed)
            return {};
        text = std::move(*sealed);
    }

    std::string body = make_body(text);
    const std::size_t line = body.size() - end_of_line.size();
    if (kind == FaultKind::no_crlf)
        body.resize(line);
    else if (kind == FaultKind::bad_base64)
        body[line / 2] = '!';
    else if (kind == FaultKind::fill && body.size() < fault->length)
        body.insert(line, fault->length - body.size(), ' ');

    const auto size = static_cast<std::uint32_t>(body.size());
    if (kind == FaultKind::bad_magic)
        return make_header("QZSGWMP1", size) + body;
    if (kind == FaultKind::bad_length)
        return make_header(frame_magic, fault->length) + body;
    std::string frame = make_frame(body);
    if (kind == FaultKind::truncated_body)
        frame.resize(frame_header + body.size() / 2);
    return frame;
}

Cloud::Packed Cloud::pack(Link &link, json_ptr message, std::string_view answered, Cipher cipher) {
    const std::optional<Fault> fault = faults_.take(answered, link.server->name());
    const FaultKind kind = fault ? fault->kind : FaultKind::none;
    if (kind == FaultKind::close) {
        end(link, "closed on purpose");
        return {};
    }
    if (kind == FaultKind::drop || kind == FaultKind::silent) {
        traffic_.event(link.number, "kept back on purpose: " + json_text(message.get()));
        return {};
    }
    if (kind == FaultKind::edit)
        merge_patch(message.get(), fault->set.get());
    Packed packed;
    const std::string frame = frame_of(link, message.get(), cipher, fault ? &*fault : nullptr);
    if (frame.empty()) {
        end(link, "encryption failed");
        return {};
    }
    if (fault)
        traffic_.event(link.number, std::string("the next message is wrong on purpose: ") + fault->word());
    if (kind == FaultKind::prefix) {
        packed.bytes = frame_of(link, fault->message.get(), cipher, nullptr);
        record(Direction::tx, link, cipher, packed.bytes.size() - frame_header, fault->message.get());
        link.sent++;
    }
    for (int copy = 0; copy < (kind == FaultKind::repeat ? fault->copies : 1); copy++) {
        packed.bytes += frame;
        record(Direction::tx, link, cipher, frame.size() - frame_header, message.get());
        link.sent++;
    }
    if (kind == FaultKind::split)
        packed.pace = fault->pace;
    if (kind == FaultKind::delay)
        link.connection->send_later(std::exchange(packed.bytes, {}), fault->delay);
    packed.message = std::move(message);
    return packed;
}

std::optional<int> Cloud::send_on(Link *link, json_ptr message, const SendOptions &options) {
    if (!link)
        return std::nullopt;
    const Cipher cipher = options.encrypt.value_or(true) ? cipher_towards(*link) : Cipher::plain;
    std::string wire;
    Pace pace = options.pace;
    for (int copy = 0; copy < options.repeat && link->connection->open(); copy++) {
        Packed packed = pack(*link, json_ptr(cJSON_Duplicate(message.get(), 1)), "", cipher);
        wire += packed.bytes;
        if (packed.pace.split)
            pace = packed.pace;
    }
    if (!wire.empty())
        link->connection->send(std::move(wire), pace);
    if (!link->connection->open())
        return std::nullopt;
    return link->number;
}

std::optional<int> Cloud::send_to_all(const cJSON *message, const SendOptions &options) {
    std::optional<int> last;
    for (const auto &link : links_)
        if (link->connection->open() && link->state == State::connected)
            if (const auto sent = send_on(link.get(), json_ptr(cJSON_Duplicate(message, 1)), options))
                last = sent;
    return last;
}

std::optional<int> Cloud::send(json_ptr message, const SendOptions &options) {
    if (options.mac == "all")
        return send_to_all(message.get(), options);
    return send_on(newest(options.mac, false), std::move(message), options);
}

std::optional<int> Cloud::request(json_ptr message, const std::string &mac) {
    return send_on(newest(mac, true), std::move(message), {});
}

bool Cloud::send_raw(std::string bytes, const Pace &pace) {
    Link *link = newest("", false);
    if (!link)
        return false;
    traffic_.event(link->number, "-> raw, " + std::to_string(bytes.size()) + " bytes");
    link->connection->send(std::move(bytes), pace);
    return true;
}

void Cloud::record(Direction direction, const Link &link, Cipher cipher, std::size_t length,
                   const cJSON *message) {
    if (direction == Direction::rx)
        statistics_.received(frame_header + length);
    else
        statistics_.sent(frame_header + length);
    const char *method = string_member(message, "RPCMethod");
    traffic_.message({direction,
                      link.number,
                      word_of(cipher),
                      cipher != Cipher::plain,
                      length,
                      method ? method : string_member(message, "Ack"),
                      message,
                      {{"server", link.server->name()}, {"cipher", word_of(cipher)}}});
}

}  // namespace arvok::lab
