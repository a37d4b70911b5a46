// What the device tells the gateway on its own. Reports are built at once and sent on the loop's next turn;
// events are sent at once.

#include <algorithm>
#include <string>

#include "arvok_client/bands.h"
#include "arvok_client/handlers.h"
#include "common/clock.h"
#include "common/identity.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr std::size_t ap_text_max = 63;
constexpr int vsie_text_max = 256;  // hex digits of a received element

bool subscribed(arvok_event event) {
    return ec->linked && (ec->event_mask & event);
}

// A member of an element of the platform's message, copied with its type under the name that the gateway
// knows.
void copy_member(json_object &to, const char *key, const cJSON *from, const char *name) {
    if (const cJSON *member = json_member(from, name))
        to.add(key, json_ptr(cJSON_Duplicate(member, true)));
}

void send_online_event(const char *mac) {
    laninfos_ptr hosts;
    if (!list_hosts(hosts)) {
        qzcap_printf("[ERROR] %s qzcap_list_laninfo failed\n", "send_arvok_lan_event");
        return;
    }
    update_ap_info();
    const qzcap_laninfo *host = find_host(hosts, mac);
    if (!host)
        return;
    const qzcap_wifi_ap *ap = ap_of_host(*host);
    const auto ap_text = [ap](char *qzcap_wifi_ap::*member) {
        return std::string(text_or_empty(ap ? ap->*member : nullptr)).substr(0, ap_text_max);
    };
    json_object event;
    event.text("event", "online")
        .text("band", host->band)
        .text("mac", mac)
        .text("ssid", ap_text(&qzcap_wifi_ap::ssid).c_str())
        .text("bssid", ap_text(&qzcap_wifi_ap::bssid).c_str())
        .text("vmac", host->vmac)
        .number("firstOnline", static_cast<double>(arvok_first_online(mac)));
    arvok_send_event(event.take());
}

// The bytes of an element as base64 of their hex digits, up to the first entry that is no number.
text_ptr encode_vsie(const cJSON *bytes) {
    std::string digits;
    for (const cJSON *byte = bytes->child; cJSON_IsNumber(byte) && digits.size() < vsie_text_max;
         byte = byte->next) {
        digits += _d2h(byte->valueint >> 4 & 0xf);
        digits += _d2h(byte->valueint & 0xf);
    }
    text_ptr text;
    _do_b64_code(digits.data(), static_cast<int>(digits.size()), text, true);
    return text;
}

}  // namespace

int send_arvok_wan_report(const cJSON *event) {
    if (!ec->linked)
        return 0;
    arvok_msg_ptr msg = arvok_msg_new("wan_report", 0);
    update_wan_info();
    json_object status(json_ptr(cJSON_Duplicate(event, true)));
    if (!json_member(status.get(), "status"))
        status.text("status", "ip_changed");
    const qzcap_waninfo *wan = g_ctx.waninfo.get();
    status.add("dns", json_texts({wan ? wan->dns1 : nullptr, wan ? wan->dns2 : nullptr}));
    msg->root.add("status", status.take());
    return arvok_post(std::move(msg));
}

void send_arvok_lan_report() {
    if (!ec->linked)
        return;
    arvok_msg_ptr msg = arvok_msg_new("dev_report", 0);
    laninfos_ptr hosts;
    if (!list_hosts(hosts)) {
        qzcap_printf("[ERROR] qzcap_list_laninfo failed");
        return;
    }
    json_ptr dev(cJSON_CreateArray());
    for (const qzcap_laninfo *host : hosts_of(hosts)) {
        if (!host->active)
            continue;
        json_object item;
        item.text("mac", host->mac)
            .text("vmac", host->vmac)
            .number("connecttype", host->connecttype)
            .number("firstOnline", static_cast<double>(arvok_first_online(host->mac)));
        json_append(dev.get(), item.take());
    }
    msg->root.add("dev", std::move(dev));
    arvok_post(std::move(msg));
}

void send_arvok_wifi_report(const cJSON *event) {
    if (!ec->linked)
        return;
    arvok_msg_ptr msg = arvok_msg_new("cfg", 0);  // the roaming report travels under this type
    const cJSON *stations = json_member(event, "roamingreport");
    if (!cJSON_IsArray(stations))
        return;
    json_ptr report(cJSON_CreateArray());
    for (const cJSON *station = stations->child; station; station = station->next) {
        json_object item;
        copy_member(item, "mac", station, "mac");
        copy_member(item, "connect_time", station, "connecttime");
        copy_member(item, "rssi", station, "rssi");
        copy_member(item, "channel", station, "channel");
        json_append(report.get(), item.take());
    }
    msg->root.add("roaming_report", std::move(report));
    arvok_post(std::move(msg));
}

// Found by the platform in the course of a query of the gateway's.
void send_arvok_rssi_report(const cJSON *event) {
    if (!ec->linked || !json_text(event, "mac") || !cJSON_IsNumber(json_member(event, "rssi")))
        return;
    arvok_msg_ptr msg = arvok_msg_new("aprssi", 0);
    json_object data;
    copy_member(data, "mac", event, "mac");
    copy_member(data, "rssi", event, "rssi");
    msg->root.add("data", data.take());
    arvok_post(std::move(msg));
}

void send_arvok_map_report() {
    if (!ec->linked)
        return;
    arvok_msg_ptr msg = arvok_msg_new("map_report", 0);
    if (const char *failed = add_map_info(msg->root)) {
        qzcap_printf("[ERROR] %s\n", failed);
        return;
    }
    arvok_post(std::move(msg));
}

void send_arvok_lan_event(const cJSON *event) {
    const char *mac = json_text(event, "mac");
    const cJSON *active = json_member(event, "active");
    if (!mac || !cJSON_IsNumber(active))
        return;
    if (active->valuedouble == 1 && subscribed(event_online))
        send_online_event(mac);
    else if (active->valuedouble == 0 && subscribed(event_offline))
        arvok_send_event(json_object().text("event", "offline").text("mac", mac).take());
}

void send_arvok_map_event(const char *mode) {
    if (subscribed(event_rolechange))
        arvok_send_event(json_object().text("event", "rolechange").text("role", mode).take());
}

void send_arvok_vsie_event(const cJSON *event) {
    const cJSON *band = json_member(event, "band");
    const char *mac = json_text(event, "mac");
    const cJSON *bytes = json_member(event, "vsie");
    if (!cJSON_IsNumber(band) || !mac || !cJSON_IsArray(bytes) || !subscribed(event_vsie))
        return;
    const char *word = band->valuedouble == 0 ? "2.4G" : band->valuedouble == 1 ? "5G" : "5G-2";
    const text_ptr data = encode_vsie(bytes);
    arvok_send_event(json_object()
                         .text("event", "vsie")
                         .text("band", word)
                         .text("mac", mac)
                         .text("data", data.get())
                         .take());
}

std::int64_t arvok_first_online(const char *mac) {
    mac = text_or_empty(mac);
    auto &list = ec->first_online_list;
    const auto seen = std::find_if(list.begin(), list.end(),
                                   [mac](const first_online &f) { return _strcasecmp(f.mac, mac) == 0; });
    if (seen != list.end()) {
        list.splice(list.begin(), list, seen);  // the record that goes first is the one longest not asked for
        return seen->time;
    }
    if (list.size() >= first_online_max)
        list.pop_back();
    first_online &now = list.emplace_front();
    _strlcpy(now.mac, mac, sizeof now.mac);
    now.time = wall_clock();
    return now.time;
}

}  // namespace arvok
