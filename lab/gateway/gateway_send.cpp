// What leaves the gateway: framing and encryption, the faults on the way, and the end of a connection.

#include <algorithm>
#include <utility>

#include "gateway.h"
#include "hex.h"

namespace arvok::lab {

// Appends the frame of `message`, as the armed fault leaves it, to `wire`. False when nothing of it will
// arrive.
bool Gateway::pack(Link &link, json_ptr message, std::string_view answered, bool sealed, std::string &wire) {
    const std::optional<Fault> fault = faults_.take(answered);
    const FaultKind kind = fault ? fault->kind : FaultKind::none;
    if (kind == FaultKind::close) {
        end(link, "closed on purpose");
        return false;
    }
    if (kind == FaultKind::drop || kind == FaultKind::silent) {
        traffic_.event(link.number, "kept back on purpose: " + json_text(message.get()));
        return false;
    }
    if (kind == FaultKind::edit)
        merge_patch(message.get(), fault->set.get());

    std::string body = json_text(message.get());
    if (kind == FaultKind::bad_json)
        body.pop_back();
    if (sealed || kind == FaultKind::wrong_key) {
        LinkKey key = link.key.value_or(LinkKey{});
        if (kind == FaultKind::wrong_key)
            for (unsigned char &byte : key)
                byte = static_cast<unsigned char>(~byte);
        std::optional<std::string> encrypted = encrypt(key, body);
        if (!encrypted) {
            end(link, "encryption failed");
            return false;
        }
        body = std::move(*encrypted);
    }

    std::string frame = make_frame(body);
    if (kind == FaultKind::bad_magic)
        frame = make_header(~frame_magic, static_cast<std::uint32_t>(body.size())) + body;
    else if (kind == FaultKind::bad_length)
        frame = make_header(frame_magic, fault->length) + body;
    else if (kind == FaultKind::truncated_body)
        frame.resize(frame_header + body.size() / 2);

    if (fault)
        traffic_.event(link.number, std::string("the next message is wrong on purpose: ") + fault->word());
    record(Direction::tx, link, sealed, body.size(), message.get());
    link.sent++;
    if (kind == FaultKind::delay)
        link.connection->send_later(std::move(frame), fault->delay);
    else
        wire += frame;
    return true;
}

std::optional<Sent> Gateway::send(json_ptr message, const SendOptions &options) {
    Link *link = peer();
    if (!link)
        return std::nullopt;
    if (!cJSON_GetObjectItemCaseSensitive(message.get(), "mac"))
        cJSON_AddStringToObject(message.get(), "mac", link->own_mac.c_str());
    cJSON *sequence = cJSON_GetObjectItemCaseSensitive(message.get(), "sequence");
    if (!sequence)
        sequence = cJSON_AddNumberToObject(message.get(), "sequence", static_cast<double>(sequence_++));

    Sent sent{link->number, cJSON_GetNumberValue(sequence)};
    const bool sealed = options.encrypt.value_or(link->key.has_value()) && link->key;
    std::string wire;
    for (int copy = 0; copy < options.repeat && link->connection->open(); copy++) {
        if (copy > 0) {
            cJSON_SetNumberValue(sequence, ++sent.sequence);
            sequence_ = std::max(sequence_, static_cast<std::int64_t>(sent.sequence) + 1);
        }
        pack(*link, json_ptr(cJSON_Duplicate(message.get(), 1)), "", sealed, wire);
    }
    if (!wire.empty())
        link->connection->send(std::move(wire), options.pace);
    if (!link->connection->open())
        return std::nullopt;
    return sent;
}

bool Gateway::send_raw(std::string bytes, const Pace &pace) {
    Link *link = peer();
    if (!link)
        return false;
    traffic_.event(link->number, "-> raw, " + std::to_string(bytes.size()) + " bytes");
    link->connection->send(std::move(bytes), pace);
    return true;
}

json_ptr Gateway::describe() const {
    json_ptr reply(cJSON_CreateObject());
    cJSON *root = reply.get();
    const Link *link = peer();
    const auto number = [root](const char *name, auto value) {
        cJSON_AddNumberToObject(root, name, static_cast<double>(value));
    };
    cJSON_AddBoolToObject(root, "connected", link != nullptr);
    cJSON_AddStringToObject(root, "state", link ? word_of(link->state) : "idle");
    if (link) {
        number("connection", link->number);
        cJSON_AddStringToObject(root, "address", link->address.c_str());
        cJSON_AddStringToObject(root, "mac", link->mac.c_str());
        cJSON_AddStringToObject(root, "link_mac", link->link_mac.c_str());
        cJSON_AddStringToObject(root, "gateway_mac", link->own_mac.c_str());
        number("keepalives", link->keepalives);
        number("received", link->received);
        number("sent", link->sent);
    }
    cJSON_AddBoolToObject(root, "encrypted", link && link->key);
    if (link && link->key)
        cJSON_AddStringToObject(
            root, "key",
            to_hex({reinterpret_cast<const char *>(link->key->data()), link->key->size()}, hex_lower)
                .c_str());
    number("connections", accepted_);
    cJSON_AddBoolToObject(root, "listening", listener_.listening());
    cJSON_AddStringToObject(root, "port", listener_.port().c_str());
    cJSON_AddStringToObject(root, "faults", faults_.describe().c_str());
    return reply;
}

void Gateway::protocol_error(Link &link, const std::string &what) {
    end(link, "protocol error, " + what);
}

void Gateway::end(Link &link, const std::string &why) {
    link.connection->close();
    traffic_.connection_event(link.number, "disconnected", link.address, why);
    on_ended(link.number);
    sweep_.set(0);
}

const char *Gateway::word_of(State state) {
    static constexpr const char *words[] = {"connected", "negotiating", "keyed", "registered", "linked"};
    return words[static_cast<int>(state)];
}

}  // namespace arvok::lab
