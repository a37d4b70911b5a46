#include "cloud.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <utility>

#include "hex.h"

namespace arvok::lab {
namespace {

constexpr std::size_t max_links = 100000;

bool is_mac(const char *text) {
    return text && std::strlen(text) == 12 && std::all_of(text, text + 12, [](char digit) {
               return std::isxdigit(static_cast<unsigned char>(digit));
           });
}

constexpr FaultKind kinds[] = {
    FaultKind::drop,           FaultKind::delay,    FaultKind::bad_magic, FaultKind::bad_length,
    FaultKind::truncated_body, FaultKind::fill,     FaultKind::no_crlf,   FaultKind::bad_base64,
    FaultKind::wrong_key,      FaultKind::bad_json, FaultKind::edit,      FaultKind::split,
    FaultKind::repeat,         FaultKind::prefix,   FaultKind::close,     FaultKind::silent,
    FaultKind::hang_up,        FaultKind::refuse,
};
// Types of the devices' messages that get an answer.
constexpr const char *answered_types[] = {"Boot",      "GetChallengeCode",    "Activate",          "Connect",
                                          "Heartbeat", "InstallNotification", "PluginNotification"};

}  // namespace

const FaultVocabulary cloud_faults{kinds, answered_types, frame_max_body + 1};

Cloud::Cloud(const CloudSettings &settings, PlatformKey key, Traffic &traffic, Faults &faults,
             const KeyLog &keys)
    : key_(std::move(key)),
      traffic_(traffic),
      faults_(faults),
      keys_(keys),
      settings_(cJSON_CreateObject()),
      sweep_([this] { std::erase_if(links_, [](const auto &link) { return !link->connection->open(); }); }) {
    const auto add = [this](const char *role, const Endpoint &at) {
        const auto taken = [this, index = servers_.size()](int descriptor, const sockaddr_in &remote) {
            arrived(*servers_[index], descriptor, remote);
        };
        servers_.push_back(
            std::unique_ptr<Server>(new Server{role, Listener(at.address, at.port, traffic_, taken)}));
    };
    add("bss", settings.bss);
    for (const Endpoint &endpoint : settings.business)
        add("business", endpoint);
    cJSON_AddItemToArray(cJSON_AddArrayToObject(settings_.get(), "acknowledge"),
                         cJSON_CreateString("InstallNotification"));
}

Cloud::~Cloud() = default;

bool Cloud::update_listening() {
    for (const auto &server : servers_)
        if (!server->listener.listen(server->on && !faults_.refusing(server->name()))) {
            failed_server_ = server->name();
            return false;
        }
    return true;
}

bool Cloud::has_server(std::string_view name) const {
    return std::any_of(servers_.begin(), servers_.end(),
                       [name](const auto &server) { return server->is(name); });
}

bool Cloud::turn(std::string_view server, bool on) {
    for (const auto &each : servers_)
        if (server.empty() || each->is(server))
            each->on = on;
    for (const auto &link : links_)
        if (!link->server->on && link->connection->open())
            end(*link, "the server was turned off");
    return update_listening();
}

// The newest connection, or the newest of one device.
Cloud::Link *Cloud::newest(const std::string &mac, bool connected_only) const {
    const auto link = std::find_if(links_.rbegin(), links_.rend(), [&](const auto &candidate) {
        return candidate->connection->open() && (mac.empty() || mac == candidate->mac) &&
               (!connected_only || candidate->state == State::connected);
    });
    return link == links_.rend() ? nullptr : link->get();
}

void Cloud::arrived(const Server &server, int descriptor, const sockaddr_in &remote) {
    auto link = std::make_unique<Link>();
    Link &entry = *link;
    entry.connection = std::make_unique<Connection>(
        descriptor, [this, &entry](std::string_view bytes) { received(entry, bytes); },
        [this, &entry](const std::string &why) { end(entry, why); });
    entry.number = ++accepted_;
    entry.address = text_of(remote);
    entry.ends = KeyLog::ends_of(descriptor, remote);
    entry.server = &server;
    if (links_.size() >= max_links) {
        traffic_.event(entry.number, "turned away " + entry.address + ": too many connections");
        return;
    }
    links_.push_back(std::move(link));
    statistics_.accepted();
    traffic_.connection_event(entry.number, "connected", entry.address, "", {{"server", server.name()}});
    if (faults_.hang_up_due(server.name()))
        end(entry, "hung up on purpose");
}

void Cloud::received(Link &link, std::string_view bytes) {
    link.reader.append(bytes);
    std::string body;
    std::uint32_t length = 0;
    while (link.connection->open()) {
        switch (link.reader.next(body, length)) {
            case FrameReader::Next::incomplete:
                return;
            case FrameReader::Next::bad_magic:
                return protocol_error(link, "frame with magic " + to_hex(body, hex_lower));
            case FrameReader::Next::bad_length:
                return protocol_error(link, "frame with body length " + std::to_string(length));
            case FrameReader::Next::frame:
                receive_body(link, body);
        }
    }
}

void Cloud::receive_body(Link &link, const std::string &body) {
    const std::string which = "body of " + std::to_string(body.size()) + " bytes ";
    const std::optional<std::string> bytes = open_body(body);
    if (!bytes)
        return protocol_error(link, which + "is no line of base64");
    Cipher cipher = Cipher::plain;
    const json_ptr message = open_message(link, *bytes, cipher);
    if (!message)
        return protocol_error(link, which + "is no JSON object, however it is decrypted");

    link.received++;
    record(Direction::rx, link, cipher, body.size(), message.get());
    if (faults_.close_due(link.server->name()))
        return end(link, "closed on purpose");
    handle(link, message.get(), cipher);
}

// What decrypts a body is what tells how it was encrypted, up to where the connection has its key.
json_ptr Cloud::open_message(const Link &link, const std::string &bytes, Cipher &cipher) const {
    const auto parse = [](const std::optional<std::string> &text) {
        return text ? parse_object(*text) : nullptr;
    };
    if (!link.server_key.empty()) {
        cipher = Cipher::server_key;
        return parse(decrypt(link.server_key, bytes));
    }
    cipher = Cipher::plain;
    if (json_ptr message = parse(bytes))
        return message;
    cipher = Cipher::rsa;
    const std::optional<std::string> text = key_.decrypt(bytes);
    // No key of the connection's opens this one, so the log has what it says.
    if (text)
        keys_.add(link.ends, "rsa", std::string_view(bytes).substr(0, 16), *text);
    return parse(text);
}

void Cloud::handle(Link &link, const cJSON *message, Cipher cipher) {
    if (string_member(message, "Ack"))
        return on_reply(link.number, message);
    const char *name = string_member(message, "RPCMethod"), *mac = string_member(message, "MAC");
    if (!name)
        return protocol_error(link, "message with neither RPCMethod nor Ack");
    const Method *method = find_method(name);
    if (!method)
        return protocol_error(link, std::string("unknown method ") + name);
    if (method->cipher != cipher)
        return protocol_error(link, std::string(name) + " under \"" + word_of(cipher) + "\"");
    if (!is_mac(mac))
        return protocol_error(link, std::string(name) + " without a MAC");
    Device *device = registry_.device(mac);
    if (!device)
        return protocol_error(link, "too many devices");
    if (cipher == Cipher::rsa && !take_client_key(link, message))
        return protocol_error(link, std::string(name) + " without a CKey of 16 characters");

    if (link.mac != mac)
        registry_.ended(link.mac, link.number);
    link.mac = mac;
    link.state = method->state.value_or(link.state);
    device->connection = link.number;
    acknowledge(link, *device, *method, message);
}

bool Cloud::take_client_key(Link &link, const cJSON *message) {
    const char *key = string_member(message, "CKey");
    if (!key || std::strlen(key) != aes_key_size)
        return false;
    link.client_key = key;
    keys_.add(link.ends, "client-key", link.client_key);
    return true;
}

void Cloud::acknowledge(Link &link, Device &device, const Method &method, const cJSON *message) {
    json_ptr ack(cJSON_CreateObject());
    cJSON_AddStringToObject(ack.get(), "Ack", method.name);
    if (const cJSON *id = cJSON_GetObjectItemCaseSensitive(message, "ID"))
        cJSON_AddItemToObject(ack.get(), "ID", cJSON_Duplicate(id, 1));
    (this->*method.fill)(link, device, message, ack.get());
    if (!is_acknowledged(method.name))
        return;

    Packed packed = pack(link, std::move(ack), method.name, cipher_towards(link));
    if (!packed.message)
        return;
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(packed.message.get(), "Result");
    const bool good = cJSON_IsNumber(result) && result->valuedouble == 0;
    statistics_.answered(method.name, good);
    if (method.take_effect && good)
        method.take_effect(link, device, packed.message.get());
    if (link.state == State::connected && method.cipher == Cipher::rsa)
        keys_.add(link.ends, "server-key", link.server_key);
    link.connection->send(std::move(packed.bytes), packed.pace);
}

void Cloud::protocol_error(Link &link, const std::string &what) {
    end(link, "protocol error, " + what);
}

void Cloud::end(Link &link, const std::string &why) {
    link.connection->close();
    statistics_.ended(link.connection->segments());
    traffic_.connection_event(link.number, "disconnected", link.address, why,
                              {{"server", link.server->name()}});
    registry_.ended(link.mac, link.number);
    on_ended(link.number);
    sweep_.set(0);
}

const char *Cloud::word_of(State state) {
    static constexpr const char *words[] = {"open",       "boot",       "challenge",
                                            "activating", "connecting", "connected"};
    return words[static_cast<int>(state)];
}

const char *Cloud::word_of(Cipher cipher) {
    static constexpr const char *words[] = {"plain", "rsa", "client key", "server key"};
    return words[static_cast<int>(cipher)];
}

}  // namespace arvok::lab
