#include "gateway/reports.h"
#include "base/base64.h"

#include "base/hex.h"
#include "base/log.h"
#include "gateway/handlers.h"
#include "gateway/rssi_queries.h"

namespace arvok::gateway {
namespace {

constexpr std::size_t access_point_text_max = 63;  // bytes of an event's SSID and BSSID
constexpr std::size_t vsie_digits_max = 256;       // hex digits of a received element

// A member of the platform's message, as it is, under the name that the gateway knows.
void copy_member(json::object &to, const char *name, json::view from, const char *platform_name) {
    to.add(name, json::copy(from[platform_name]));
}

// The bytes of an element as base64 of their hex digits, up to the first entry that is no number.
std::string encode_vsie(json::view bytes) {
    std::string digits;
    for (const json::view entry : bytes) {
        const std::optional<int> byte = entry.integer();
        if (!byte || digits.size() >= vsie_digits_max)
            break;
        digits += hex_digit(*byte >> 4);
        digits += hex_digit(*byte);
    }
    return base64_encode(digits);
}

}  // namespace

// --- reports ---

void reports::send_wan_report(json::object status) {
    message report = link_.new_message("wan_report");
    cache_.refresh_wan();
    const qzcap_waninfo *wan = cache_.wan();
    json::array servers;
    servers.add(json::text(view_of(wan ? wan->dns1 : nullptr)))
        .add(json::text(view_of(wan ? wan->dns2 : nullptr)));
    report.body.add("status", status.add("dns", servers.take()).take());
    link_.post(std::move(report));
}

void reports::wan_up(const qzcap_waninfo &wan) {
    if (!state_.linked)
        return;
    json::object status;
    status.text("ipaddr", wan.ipaddr).text("status", "up");
    send_wan_report(std::move(status));
}

void reports::wan_report(json::view event) {
    if (!state_.linked)
        return;
    cache_.expire_wan();  // its DNS servers may be what has changed
    json::object status(event, {"dns"});
    if (!event["status"])
        status.text("status", "ip_changed");
    send_wan_report(std::move(status));
}

void reports::lan_report(platform::host_snapshot &hosts) {
    if (!state_.linked)
        return;
    message report = link_.new_message("dev_report");
    const platform::host_list *listed = hosts.hosts();
    if (!listed) {
        log_printf("[ERROR] qzcap_list_laninfo failed");
        return;
    }
    json::array active;
    std::size_t count = 0;
    for (const qzcap_laninfo *host : *listed) {
        if (!host->active)
            continue;
        json::object item;
        item.text("mac", host->mac)
            .text("vmac", host->vmac)
            .number("connecttype", host->connecttype)
            .number("firstOnline", static_cast<double>(first_seen_.of(view_of(host->mac))));
        active.add(item.take());
        count++;
    }
    first_seen_.forget_others(count);
    report.body.add("dev", active.take());
    link_.post(std::move(report));
}

void reports::roaming_report(json::view event) {
    if (!state_.linked)
        return;
    message report = link_.new_message("cfg");  // it travels under this type
    const json::view stations = event["roamingreport"];
    if (!stations.is_array())
        return;
    json::array roamed;
    for (const json::view station : stations) {
        json::object item;
        copy_member(item, "mac", station, "mac");
        copy_member(item, "connect_time", station, "connecttime");
        copy_member(item, "rssi", station, "rssi");
        copy_member(item, "channel", station, "channel");
        roamed.add(item.take());
    }
    report.body.add("roaming_report", roamed.take());
    link_.post(std::move(report));
}

void reports::rssi_report(json::view event) {
    const auto mac = event["mac"].text();
    if (!mac || !event["rssi"].is_number())
        return;
    const std::optional<rssi_asker> asker = queries_.ended(*mac);
    if (!asker || (asker == rssi_asker::gateway && !state_.linked))
        return;
    message report = link_.new_message("aprssi");
    json::object data;
    copy_member(data, "mac", event, "mac");
    copy_member(data, "rssi", event, "rssi");
    report.body.add("data", data.take());
    if (asker == rssi_asker::cloud)
        notify_cloud_(report.body.take().take());
    else
        link_.post(std::move(report));
}

void reports::map_report() {
    if (!state_.linked)
        return;
    message report = link_.new_message("map_report");
    if (const auto failure = add_map_info(report.body)) {
        log_printf("[ERROR] %s\n", failure->data());
        return;
    }
    link_.post(std::move(report));
}

// --- events ---

void reports::send_event(const json::value &item) {
    message event = link_.new_message("event");
    event.body.add("data", json::array().add(item).take());
    link_.tell(std::move(event));
}

void reports::send_online_event(std::string_view mac, platform::host_snapshot &hosts) {
    const platform::host_list *listed = hosts.hosts();
    if (!listed) {
        log_printf("[ERROR] send_arvok_lan_event qzcap_list_laninfo failed\n");
        return;
    }
    cache_.refresh_access_points();
    const qzcap_laninfo *host = platform::find_host(*listed, mac);
    if (!host)
        return;
    const qzcap_wifi_ap *at = cache_.access_point_of(*host);
    json::object event;
    event.text("event", "online")
        .text("band", host->band)
        .text("mac", mac)
        .text("ssid", cut(view_of(at ? at->ssid : nullptr), access_point_text_max))
        .text("bssid", cut(view_of(at ? at->bssid : nullptr), access_point_text_max))
        .text("vmac", host->vmac)
        .number("firstOnline", static_cast<double>(first_seen_.of(mac)));
    send_event(event.take());
}

void reports::lan_event(json::view event, platform::host_snapshot &hosts) {
    const std::optional<std::string_view> mac = event["mac"].text();
    const std::optional<double> active = event["active"].number();
    if (!mac || !active)
        return;
    if (*active == 1 && is_wanted(event_online))
        send_online_event(*mac, hosts);
    else if (*active == 0 && is_wanted(event_offline))
        send_event(json::object().text("event", "offline").text("mac", *mac).take());
}

void reports::map_event(std::string_view mode) {
    if (is_wanted(event_rolechange))
        send_event(json::object().text("event", "rolechange").text("role", mode).take());
}

void reports::vsie_event(json::view event) {
    const std::optional<double> band = event["band"].number();
    const std::optional<std::string_view> mac = event["mac"].text();
    const json::view bytes = event["vsie"];
    if (!band || !mac || !bytes.is_array() || !is_wanted(event_vsie))
        return;
    const char *word = *band == 0 ? "2.4G" : *band == 1 ? "5G" : "5G-2";
    send_event(json::object()
                   .text("event", "vsie")
                   .text("band", word)
                   .text("mac", *mac)
                   .text("data", encode_vsie(bytes))
                   .take());
}

}  // namespace arvok::gateway
