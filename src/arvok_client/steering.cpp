// Wireless stations: how they are heard, and where they should go.

#include <algorithm>
#include <vector>

#include "arvok_client/handlers.h"
#include "arvok_client/request_members.h"
#include "common/text.h"

namespace arvok {
namespace {

constexpr std::uint32_t connect_wireless = 1;
constexpr int query_max = 60;     // seconds
constexpr int channel_max = 255;  // a channel is one byte of the transition request

// The channel on which the radio of a host's band works now; 0 when it is not known.
std::int32_t channel_of(const char *band_word) {
    for (const wifi_band &band : device_bands())
        if (_strcmp(band_word, band.word) == 0)
            if (const qzcap_wifiinfo *radio = radio_of(band))
                return radio->current_channel;
    return 0;
}

// The members of a request stand in "data". Gateways that write them beside the envelope are understood too:
// its "mac" is then the station's. Null after recording that "data" is no object.
const cJSON *members_of(const cJSON *root) {
    const cJSON *data = json_member(root, "data");
    if (!data || cJSON_IsObject(data))
        return data ? data : root;
    arvok_set_error(err_invalid_parameter, "invalid data");
    return nullptr;
}

bool is_wireless(const qzcap_laninfo *host) {
    return host && host->connecttype == connect_wireless;
}

// The stations that a request names; `all` when it names none.
struct station_filter {
    bool all;
    std::vector<const char *> macs;

    bool passes(const qzcap_laninfo &host) const {
        return all || std::any_of(macs.begin(), macs.end(),
                                  [&host](const char *mac) { return _strcasecmp(mac, host.mac) == 0; });
    }
};

// Adds the stations that are connected and asked for, or records the error.
void add_stations(const cJSON *root, const reply_context &context, cJSON *stations) {
    const cJSON *given = members_of(root);
    if (!given)
        return;
    request_members members(given);
    station_filter filter{!members.has("mac"), {}};
    if (!filter.all)
        filter.macs = members.text_or_texts("mac");
    if (!members.ok())
        return;
    laninfos_ptr hosts;
    if (!list_hosts(hosts))
        return arvok_set_error(err_platform, "qzcap_list_laninfo failed");
    if (update_wifi_info() != 0)
        return arvok_set_error(err_platform, "update_wifi_info failed");
    // In an envelope, what is no station's MAC is the sender's own.
    if (given == root && !context.from_cloud && !is_wireless(find_host(hosts, filter.macs.front())))
        filter.all = true;
    for (const qzcap_laninfo *host : hosts_of(hosts))
        if (host->active && is_wireless(host) && filter.passes(*host))
            json_append(stations, json_object()
                                      .text("mac", host->mac)
                                      .text("band", host->band)
                                      .number("rssi", host->rssi)
                                      .number("channel", channel_of(host->band))
                                      .take());
}

// Has the radio of the band hear out a station; what it finds is reported when the platform tells.
void start_rssi_query(const cJSON *request) {
    request_members members(request);
    const char *mac = members.text("mac");
    const wifi_band *band = members.band("band");
    const std::int32_t duration = members.number("duration", 1, query_max);
    if (!members.ok())
        return;
    if (update_wifi_info() != 0)
        return arvok_set_error(err_platform, "update_wifi_info failed");
    const qzcap_rssi_query query{.mac = const_cast<char *>(mac),  // texts are only read
                                 .band = const_cast<char *>(band->word),
                                 .channel = static_cast<std::uint32_t>(channel_of(band->word)),
                                 .duration = static_cast<std::uint32_t>(duration) * 1000};
    char *reason = nullptr;
    if (qzcap_start_rssi_query(&query, &reason) < 0)
        arvok_set_platform_error("qzcap_start_rssi_query", reason);
}

// The station is free not to go: it is not disconnected.
void move_station(const cJSON *request) {
    request_members members(request);
    const char *mac = members.text("mac");
    const char *bssid = members.text("bssid");
    members.band("band");  // the target's channel says it already
    const std::int32_t channel = members.number("channel", 1, channel_max);
    if (!members.ok())
        return;
    const qzcap_bsstransition transition{.mac = const_cast<char *>(mac),
                                         .bssid = const_cast<char *>(bssid),
                                         .channel = static_cast<std::uint32_t>(channel),
                                         .timeout = 0};
    char *reason = nullptr;
    if (qzcap_bss_transition(&transition, &reason) < 0)
        arvok_set_platform_error("qzcap_bss_transition", reason);
}

// What the three requests that are only acknowledged have in common.
template <auto Run>
int acknowledged(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    if (const cJSON *members = members_of(root))
        Run(members);
    context.reply = ack_reply(root);
    return 1;
}

}  // namespace

int arvok_deassociation(const cJSON *root, reply_context &context) {
    return acknowledged<deassociate>(root, context);
}

int arvok_getrssiinfo(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    json_ptr stations(cJSON_CreateArray());
    add_stations(root, context, stations.get());
    context.reply = reply_to(root, "rssiinfo")
                        .number("errcode", ec->errcode)
                        .text("errmsg", ec->errmsg)
                        .add("data", std::move(stations))
                        .take();
    return 1;
}

int arvok_startaprssiquery(const cJSON *root, reply_context &context) {
    return acknowledged<start_rssi_query>(root, context);
}

int arvok_startstabsstransitionrequest(const cJSON *root, reply_context &context) {
    return acknowledged<move_station>(root, context);
}

}  // namespace arvok
