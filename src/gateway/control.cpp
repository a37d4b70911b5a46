#include "gateway/control.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "base/base64.h"
#include "base/hex.h"
#include "base/log.h"
#include "base/table.h"
#include "gateway/gateway.h"
#include "gateway/handlers.h"
#include "gateway/request_members.h"

namespace arvok::gateway {
namespace {

constexpr int lifetime_max = 300;           // seconds
constexpr std::size_t payload_max = 256;    // bytes of an element
constexpr std::size_t beacon_id_max = 255;  // bytes: 64 of them are 16 KiB

void reboot(request &r, json::view) {
    r.actions |= action_reboot;
}

void reset(request &r, json::view) {
    r.actions |= action_reset;
}

// Settings are stored as they are made; older gateways still ask.
void save(request &, json::view) {}

// The id of an element.
std::string_view beacon_id(request_members &members) {
    const std::string_view id = members.text("id");
    if (id.size() > beacon_id_max)
        members.refuse("id");
    return id;
}

using payload = std::vector<unsigned char>;

// The payload of an element: base64 of hex digits, two to a byte; an odd last digit is a high half.
std::optional<payload> decode_payload(std::string_view data) {
    const std::optional<std::string> text = base64_decode(data);
    if (!text)
        return std::nullopt;
    const std::string_view digits = until_zero(*text);
    if (digits.size() > payload_max * 2)
        return std::nullopt;
    payload bytes((digits.size() + 1) / 2);
    for (std::size_t i = 0; i < digits.size(); i++) {
        const int nibble = hex_value(digits[i]);
        bytes[i / 2] |= static_cast<unsigned char>(i % 2 ? nibble : nibble << 4);
    }
    return bytes;
}

// The payload of a command whose members are all valid; nothing after recording that it is none.
std::optional<payload> payload_of(request_members &members, std::string_view data) {
    if (!members.ok())
        return std::nullopt;
    std::optional<payload> bytes = decode_payload(data);
    if (!bytes)
        members.refuse("data");
    return bytes;
}

void sendvsie(request &r, json::view element) {
    r.services.beacons.send(r, element);
}

void stopvsie(request &r, json::view element) {
    r.services.beacons.stop(r, element);
}

void proberesp(request &r, json::view element) {
    request_members members(r, element);
    members.text("id");
    members.text("band");
    const std::string_view data = members.text("data");
    const std::string_view mac = members.text("mac");
    std::optional<payload> bytes = payload_of(members, data);
    if (!bytes)
        return;
    const qzcap_vsie_proberesp response{.mac = platform::lent(mac),
                                        .flag = 0,
                                        .data = bytes->data(),
                                        .length = static_cast<std::uint32_t>(bytes->size())};
    platform::reason why;
    if (platform::call(qzcap_add_vsie_proberesp, &response, why) < 0)
        r.fail(platform_failed, "qzcap_add_vsie_proberesp failed: %s", why.c_str());
}

void channelscan(request &r, json::view) {
    platform::reason why;
    if (platform::call(qzcap_wifi_channelscan, why) < 0)
        r.fail(platform_failed, "qzcap_wifi_channelscan failed: %s", why.c_str());
}

struct command_row {
    const char *name;
    void (*run)(request &r, json::view element);
};

constexpr command_row commands[] = {
    {"reboot", reboot},     {"reset", reset},       {"save", save},           {"deassociation", deassociate},
    {"sendvsie", sendvsie}, {"stopvsie", stopvsie}, {"proberesp", proberesp}, {"channelscan", channelscan},
};

}  // namespace

beacons::sent::sent(beacons &o, std::int32_t i, std::string_view name, int lifetime_s)
    : owner(o), index(i), id(name), end(bind<&sent::forget>(*this)) {
    end.arm(lifetime_s * 1000);
}

void beacons::sent::forget() {
    owner.sent_.remove_if([this](const sent &other) { return &other == this; });
}

// One that has ended may still be there until the loop's next turn.
std::list<beacons::sent>::iterator beacons::find(std::string_view id) {
    return std::find_if(sent_.begin(), sent_.end(),
                        [id](sent &s) { return s.id == id && s.end.remaining() > 0; });
}

void beacons::send(request &r, json::view element) {
    request_members members(r, element);
    const std::string_view id = beacon_id(members);
    members.text("band");
    const std::string_view data = members.text("data");
    const int persist = members.number("persist");
    std::optional<payload> bytes = payload_of(members, data);
    if (!bytes)
        return;
    const auto former = find(id);
    if (former == sent_.end() && sent_.size() >= sent_max)
        return r.fail(invalid_parameter, "too many");

    const int lifetime = persist >= 1 && persist <= lifetime_max ? persist : lifetime_max;
    const qzcap_vsie_beacontx beacon{.name = platform::lent(beacon_owner),
                                     .flag = 1,
                                     .lifetime = static_cast<std::uint32_t>(lifetime),
                                     .data = bytes->data(),
                                     .length = static_cast<std::uint32_t>(bytes->size())};
    platform::reason why;
    const std::int32_t index = platform::call(qzcap_add_vsie_beacontx, &beacon, why);
    if (index < 0)
        return r.fail(platform_failed, "qzcap_add_vsie_beacontx failed: %s", why.c_str());
    if (platform::call(qzcap_vsie_beacontx_action, index, "start", why) < 0)
        return r.fail(platform_failed, "qzcap_vsie_beacontx_action failed: %s", why.c_str());
    const std::int32_t replaced = former == sent_.end() ? index : former->index;
    if (former != sent_.end())
        sent_.erase(former);
    sent_.emplace_front(*this, index, id, lifetime);
    if (replaced != index && platform::call(qzcap_vsie_beacontx_action, replaced, "stop", why) < 0)
        r.fail(platform_failed, "qzcap_vsie_beacontx_action failed: %s", why.c_str());
}

void beacons::stop(request &r, json::view element) {
    request_members members(r, element);
    const std::string_view id = beacon_id(members);
    if (!members.ok())
        return;
    const auto found = find(id);
    if (found == sent_.end())
        return r.fail(invalid_parameter, "id not found");
    const std::int32_t index = found->index;
    sent_.erase(found);
    platform::reason why;
    if (platform::call(qzcap_vsie_beacontx_action, index, "stop", why) < 0)
        r.fail(platform_failed, "qzcap_vsie_beacontx_action failed: %s", why.c_str());
}

bool handle_control(request &r) {
    if (!r.has_envelope())
        return false;
    const json::view data = r.root["data"];
    if (!data.is_array()) {
        log_printf("[ERROR] invalid data\n");
        return false;
    }
    for (const json::view element : data) {
        const std::optional<std::string_view> name = element["command"].text();
        if (!name) {
            log_printf("[ERROR] invalid command\n");
            continue;
        }
        if (const command_row *command = find_row(commands, *name))
            command->run(r, element);
        else
            r.fail(not_supported, "unknown command: %s", name->data());
    }
    r.acknowledge();
    return true;
}

bool handle_qlink(request &r) {
    r.fail(not_supported, "Arvok AP without this interface");
    return true;
}

}  // namespace arvok::gateway
