#include "gateway.h"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "hex.h"

namespace arvok::lab {
namespace {

constexpr std::size_t max_links = 100000;

// The MAC of the interface that holds `address`, as 12 upper-case digits; empty when there is none.
std::string mac_of(const in_addr &address) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(list, freeifaddrs);
    const auto find = [list](auto &&matches) {
        const ifaddrs *entry = list;
        while (entry && !(entry->ifa_addr && matches(*entry)))
            entry = entry->ifa_next;
        return entry;
    };
    const ifaddrs *holder = find([&address](const ifaddrs &entry) {
        return entry.ifa_addr->sa_family == AF_INET &&
               reinterpret_cast<const sockaddr_in *>(entry.ifa_addr)->sin_addr.s_addr == address.s_addr;
    });
    if (!holder)
        return {};
    const ifaddrs *packet = find([holder](const ifaddrs &entry) {
        return entry.ifa_addr->sa_family == AF_PACKET && !std::strcmp(entry.ifa_name, holder->ifa_name);
    });
    return packet ? to_hex({reinterpret_cast<const char *>(
                                reinterpret_cast<const sockaddr_ll *>(packet->ifa_addr)->sll_addr),
                            6},
                           hex_upper)
                  : std::string();
}

constexpr FaultKind kinds[] = {
    FaultKind::drop,           FaultKind::delay,     FaultKind::bad_magic, FaultKind::bad_length,
    FaultKind::truncated_body, FaultKind::wrong_key, FaultKind::bad_json,  FaultKind::edit,
    FaultKind::close,          FaultKind::silent,    FaultKind::refuse,
};
// Types of the agent's messages that get an answer.
constexpr const char *answered_types[] = {"keyngreq",   "dh",         "dev_reg",    "keepalive",
                                          "wan_report", "dev_report", "map_report", "cfg",
                                          "aprssi",     "event",      "ubus_notify"};

}  // namespace

const FaultVocabulary gateway_faults{kinds, answered_types, frame_max_body + 1};

const Gateway::Answer Gateway::answers[] = {
    {"keyngreq", &Gateway::answer_key_request},
    {"dh", &Gateway::answer_key},
    {"dev_reg", &Gateway::answer_registration},
    {"keepalive", &Gateway::answer_keepalive},
    {"wan_report", &Gateway::acknowledge},
    {"dev_report", &Gateway::acknowledge},
    {"map_report", &Gateway::acknowledge},
    {"cfg", &Gateway::acknowledge},  // the roaming report travels under this name
    {"aprssi", &Gateway::acknowledge},
    {"event", &Gateway::acknowledge},
    {"ubus_notify", &Gateway::acknowledge},
};

Gateway::Gateway(const GatewaySettings &settings, Traffic &traffic, Faults &faults, const KeyLog &keys)
    : mac_(settings.mac),
      traffic_(traffic),
      faults_(faults),
      keys_(keys),
      listener_(settings.address, settings.port, traffic,
                [this](int descriptor, const sockaddr_in &remote) { arrived(descriptor, remote); }),
      sweep_([this] { std::erase_if(links_, [](const auto &link) { return !link->connection->open(); }); }) {}

Gateway::~Gateway() = default;

bool Gateway::update_listening() {
    return listener_.listen(!faults_.refusing());
}

Gateway::Link *Gateway::peer() const {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(),
                                     [](const auto &link) { return link->connection->open(); });
    return newest == links_.rend() ? nullptr : newest->get();
}

void Gateway::arrived(int descriptor, const sockaddr_in &remote) {
    auto link = std::make_unique<Link>();
    Link &entry = *link;
    entry.connection = std::make_unique<Connection>(
        descriptor, [this, &entry](std::string_view bytes) { received(entry, bytes); },
        [this, &entry](const std::string &why) { end(entry, why); });
    entry.number = ++accepted_;
    entry.address = text_of(remote);
    entry.ends = KeyLog::ends_of(descriptor, remote);
    if (links_.size() >= max_links) {
        traffic_.event(entry.number, "turned away " + entry.address + ": too many connections");
        return;
    }
    sockaddr_in local{};
    socklen_t size = sizeof local;
    getsockname(descriptor, reinterpret_cast<sockaddr *>(&local), &size);
    entry.own_mac = mac_.empty() ? mac_of(local.sin_addr) : mac_;
    links_.push_back(std::move(link));
    traffic_.connection_event(entry.number, "connected", entry.address, "");
}

void Gateway::received(Link &link, std::string_view bytes) {
    link.reader.append(bytes);
    std::string body;
    std::uint32_t word = 0;
    while (link.connection->open()) {
        switch (link.reader.next(body, word)) {
            case FrameReader::Next::incomplete:
                return;
            case FrameReader::Next::bad_magic:
                return protocol_error(
                    link, "frame with magic 0x" + to_hex(make_header(word, 0).substr(0, 4), hex_lower));
            case FrameReader::Next::bad_length:
                return protocol_error(link, "frame with body length " + std::to_string(word));
            case FrameReader::Next::frame:
                receive_body(link, body);
        }
    }
}

void Gateway::receive_body(Link &link, const std::string &body) {
    std::optional<std::string> text = link.key ? decrypt(*link.key, body) : body;
    if (!text)
        return protocol_error(link, "body of " + std::to_string(body.size()) + " bytes is not encrypted");
    text->resize(std::strlen(text->c_str()));  // the padding goes
    const json_ptr message = parse_object(*text);
    if (!message)
        return protocol_error(link, "body of " + std::to_string(body.size()) + " bytes is no JSON object");

    link.received++;
    if (const char *mac = string_member(message.get(), "mac"))
        link.mac = mac;
    record(Direction::rx, link, link.key.has_value(), body.size(), message.get());
    if (faults_.close_due())
        return end(link, "closed on purpose");
    handle(link, message.get());
}

void Gateway::record(Direction direction, const Link &link, bool sealed, std::size_t length,
                     const cJSON *message) {
    traffic_.message({direction, link.number, sealed ? "" : "plain", sealed, length,
                      string_member(message, "type"), message});
}

void Gateway::handle(Link &link, const cJSON *message) {
    const char *type = string_member(message, "type");
    if (!type)
        return protocol_error(link, "message without a type");
    const auto row = std::find_if(std::begin(answers), std::end(answers),
                                  [type](const Answer &answer) { return !std::strcmp(answer.type, type); });
    if (row == std::end(answers)) {
        on_reply(link.number, message);
        return;
    }
    if (!cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(message, "sequence")))
        return protocol_error(link, "message without a sequence");
    (this->*row->handler)(link, message);
}

void Gateway::answer_key_request(Link &link, const cJSON *message) {
    if (link.key)
        return protocol_error(link, "key request on a link that has its key");
    bool offered = false;
    const cJSON *mode = nullptr;
    cJSON_ArrayForEach(mode, cJSON_GetObjectItemCaseSensitive(message, "keymodelist")) {
        const char *word = string_member(mode, "keymode");
        offered |= word && !std::strcmp(word, "dh");
    }
    if (!offered)
        return protocol_error(link, "key request that does not offer \"dh\"");
    json_ptr reply = envelope(link, "keyngack", message);
    cJSON_AddStringToObject(reply.get(), "keymode", "dh");
    if (answer(link, std::move(reply), message))
        link.state = State::negotiating;
}

void Gateway::answer_key(Link &link, const cJSON *message) {
    if (link.state != State::negotiating)
        return protocol_error(link, "key exchange without a key request");
    const cJSON *data = cJSON_GetObjectItemCaseSensitive(message, "data");
    const char *key = string_member(data, "dh_key"), *p = string_member(data, "dh_p"),
               *g = string_member(data, "dh_g");
    if (!key || !p || !g)
        return protocol_error(link, "key exchange without its three values");
    std::string error;
    const std::optional<DhAnswer> agreed = answer_dh(p, g, key, error);
    if (!agreed)
        return protocol_error(link, "key exchange refused: " + error);

    json_ptr reply = envelope(link, "dh", message);
    cJSON *values = cJSON_AddObjectToObject(reply.get(), "data");
    cJSON_AddStringToObject(values, "dh_key", agreed->public_value.c_str());
    cJSON_AddStringToObject(values, "dh_p", p);
    cJSON_AddStringToObject(values, "dh_g", g);
    keys_.add(link.ends, "key", {reinterpret_cast<const char *>(agreed->key.data()), agreed->key.size()});
    if (!answer(link, std::move(reply), message))
        return;
    link.key = agreed->key;
    link.state = State::keyed;
    traffic_.event(link.number,
                   "key agreed, shared number of " + std::to_string(agreed->secret_bytes) + " bytes");
}

void Gateway::answer_registration(Link &link, const cJSON *message) {
    if (const char *mac = string_member(message, "link_mac"))
        link.link_mac = mac;
    json_ptr reply = envelope(link, "ack", message);
    cJSON_AddNumberToObject(reply.get(), "errcode", 0);
    if (answer(link, std::move(reply), message))
        link.state = State::registered;
}

void Gateway::answer_keepalive(Link &link, const cJSON *message) {
    link.keepalives++;
    if (link.state == State::registered)
        link.state = State::linked;
    acknowledge(link, message);
}

void Gateway::acknowledge(Link &link, const cJSON *message) {
    json_ptr reply = envelope(link, "ack", message);
    cJSON_AddNumberToObject(reply.get(), "errcode", 0);
    answer(link, std::move(reply), message);
}

json_ptr Gateway::envelope(const Link &link, const char *type, const cJSON *answered) const {
    json_ptr message(cJSON_CreateObject());
    cJSON_AddStringToObject(message.get(), "type", type);
    cJSON_AddItemToObject(message.get(), "sequence",
                          cJSON_Duplicate(cJSON_GetObjectItemCaseSensitive(answered, "sequence"), 1));
    cJSON_AddStringToObject(message.get(), "mac", link.own_mac.c_str());
    return message;
}

// False when the other side will never see the answer.
bool Gateway::answer(Link &link, json_ptr message, const cJSON *answered) {
    std::string wire;
    if (!pack(link, std::move(message), string_member(answered, "type"), link.key.has_value(), wire))
        return false;
    link.connection->send(std::move(wire));
    return link.connection->open();
}

}  // namespace arvok::lab
