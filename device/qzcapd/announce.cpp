// What the platform tells its subscribers when its state changes, whoever changed it.
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "calls_table.h"

namespace arvok::qzcapd {
namespace {

constexpr int lan_object = 5;
constexpr int wan_object = 6;
constexpr int wifi_object = 7;
constexpr int mesh_object = 15;

bool differs(const cJSON *before, const cJSON *after, const char *name) {
    const char *old_text = get_text(before, name);
    const char *new_text = get_text(after, name);
    return new_text != nullptr && (old_text == nullptr || std::strcmp(old_text, new_text) != 0);
}

bool is_active(const cJSON *host) {
    return get_number(host, "active") != 0;
}

Notification host_event(const char *method, const char *mac, bool active) {
    json_ptr message(cJSON_CreateObject());
    put_text(message.get(), "mac", mac);
    put_number(message.get(), "active", active ? 1 : 0);
    return {lan_object, method, std::move(message)};
}

// There may be thousands, and a member of cJSON's is looked for from the first one on.
std::unordered_map<std::string_view, const cJSON *> by_name(const cJSON *object) {
    std::unordered_map<std::string_view, const cJSON *> members;
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, object) members.emplace(member->string, member);
    return members;
}

void announce_hosts(const cJSON *before, const cJSON *after, std::vector<Notification> &out) {
    const auto known = by_name(before), present = by_name(after);
    const cJSON *host = nullptr;
    cJSON_ArrayForEach(host, after) {
        const auto found = known.find(host->string);
        const cJSON *old = found == known.end() ? nullptr : found->second;
        if (old == nullptr) {
            out.push_back(host_event("newdevice", host->string, is_active(host)));
        }
        if (is_active(old) != is_active(host)) {
            out.push_back(host_event("devicestatus", host->string, is_active(host)));
        }
    }
    cJSON_ArrayForEach(host, before) {
        if (!present.contains(host->string) && is_active(host)) {
            out.push_back(host_event("devicestatus", host->string, false));
        }
    }
}

/// A new address without a change of status has no "status": that is how subscribers tell the two apart.
void announce_wan(const cJSON *before, const cJSON *after, std::vector<Notification> &out) {
    const bool status = differs(before, after, "status");
    if (!status && !differs(before, after, "ipaddr")) {
        return;
    }
    json_ptr message(cJSON_CreateObject());
    for (const char *name : {"status", "ipaddr"}) {
        if (const char *text = get_text(after, name);
            text != nullptr && (status || std::strcmp(name, "status") != 0)) {
            put_text(message.get(), name, text);
        }
    }
    out.push_back({wan_object, "wanstatus", std::move(message)});
}

void announce_text(const cJSON *before, const cJSON *after, const char *name, Notification notification,
                   const char *key, std::vector<Notification> &out) {
    if (differs(before, after, name)) {
        notification.message.reset(cJSON_CreateObject());
        put_text(notification.message.get(), key, get_text(after, name));
        out.push_back(std::move(notification));
    }
}

}  // namespace

std::vector<Notification> announcements(const cJSON *before, const cJSON *after) {
    std::vector<Notification> out;
    announce_hosts(get(before, "laninfo"), get(after, "laninfo"), out);
    announce_wan(get(before, "waninfo"), get(after, "waninfo"), out);
    const cJSON *old_switch = get(before, "wifi_switch");
    const cJSON *new_switch = get(after, "wifi_switch");
    for (const char *name : {"wifiswitch", "wpsswitch", "arvoksync"}) {
        announce_text(old_switch, new_switch, name, {wifi_object, name, nullptr}, name, out);
    }
    announce_text(get(before, "mesh"), get(after, "mesh"), "role", {mesh_object, "mode", nullptr}, "mode",
                  out);
    return out;
}

}  // namespace arvok::qzcapd
