// Wireless stations: how they are heard, and where they should go.

#include <algorithm>

#include "gateway/handlers.h"
#include "gateway/request_members.h"
#include "gateway/rssi_queries.h"

namespace arvok::gateway {
namespace {

constexpr int query_max = 60;     // seconds
constexpr int channel_max = 255;  // a channel is one byte of the transition request

// The channel on which the radio of a host's band works now; 0 when it is not known.
std::int32_t channel_of(const platform::cache &cache, std::string_view band_word) {
    for (const platform::band &band : cache.device_bands())
        if (band_word == band.word)
            if (const qzcap_wifiinfo *radio = cache.radio(band))
                return radio->current_channel;
    return 0;
}

// The members of a request stand in "data". Gateways that write them beside the envelope are understood too:
// its "mac" is then the station's. None after recording that "data" is no object.
json::view members_of(request &r) {
    const json::view data = r.root["data"];
    if (!data)
        return r.root;
    if (data.is_object())
        return data;
    r.fail(invalid_parameter, "invalid data");
    return {};
}

bool is_wireless(const qzcap_laninfo *host) {
    return host && host->connecttype == platform::connected_wireless;
}

// The stations that a request names; `all` when it names none.
struct station_filter {
    bool all;
    std::vector<const char *> macs;

    bool passes(const qzcap_laninfo &host) const {
        return all || std::any_of(macs.begin(), macs.end(), [&host](const char *mac) {
                   return host.mac && same_ignoring_case(mac, host.mac);
               });
    }
};

// The stations that are connected and asked for; none after recording an error.
json::array heard_stations(request &r) {
    json::array stations;
    const json::view given = members_of(r);
    if (!given)
        return stations;
    request_members members(r, given);
    station_filter filter{!members.has("mac"), {}};
    if (!filter.all)
        filter.macs = members.text_or_texts("mac");
    if (!members.ok())
        return stations;
    const auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    if (!hosts) {
        r.fail(platform_failed, "qzcap_list_laninfo failed");
        return stations;
    }
    if (!r.services.cache.refresh_radios()) {
        r.fail(platform_failed, "update_wifi_info failed");
        return stations;
    }
    // In an envelope, what is no station's MAC is the sender's own.
    if (given == r.root && !r.from_cloud && !filter.all &&
        !is_wireless(platform::find_host(*hosts, filter.macs.front())))
        filter.all = true;
    for (const qzcap_laninfo *host : *hosts)
        if (host->active && is_wireless(host) && filter.passes(*host))
            stations.open_object()
                .text("mac", host->mac)
                .text("band", host->band)
                .number("rssi", host->rssi)
                .number("channel", channel_of(r.services.cache, view_of(host->band)))
                .close();
    return stations;
}

// Has the radio of the band hear out a station; what it finds is reported when the platform tells.
void start_rssi_query(request &r, json::view data) {
    request_members members(r, data);
    const std::string_view mac = members.text("mac");
    const platform::band &band = members.band("band");
    const std::int32_t duration = members.number("duration", 1, query_max);
    if (!members.ok())
        return;
    if (!r.services.cache.refresh_radios())
        return r.fail(platform_failed, "update_wifi_info failed");
    const qzcap_rssi_query query{
        .mac = platform::lent(mac),
        .band = platform::lent(band.word),
        .channel = static_cast<std::uint32_t>(channel_of(r.services.cache, band.word)),
        .duration = static_cast<std::uint32_t>(duration) * 1000};
    platform::reason why;
    if (platform::call(qzcap_start_rssi_query, &query, why) < 0)
        return r.fail(platform_failed, "qzcap_start_rssi_query failed: %s", why.c_str());
    r.services.queries.begun(mac, r.from_cloud ? rssi_asker::cloud : rssi_asker::gateway, duration);
}

// The station is free not to go: it is not disconnected.
void move_station(request &r, json::view data) {
    request_members members(r, data);
    const std::string_view mac = members.text("mac");
    const std::string_view bssid = members.text("bssid");
    members.band("band");  // the target's channel says it already
    const std::int32_t channel = members.number("channel", 1, channel_max);
    if (!members.ok())
        return;
    const qzcap_bsstransition transition{.mac = platform::lent(mac),
                                         .bssid = platform::lent(bssid),
                                         .channel = static_cast<std::uint32_t>(channel),
                                         .timeout = 0};
    platform::reason why;
    if (platform::call(qzcap_bss_transition, &transition, why) < 0)
        r.fail(platform_failed, "qzcap_bss_transition failed: %s", why.c_str());
}

// What the three requests that are only acknowledged have in common.
bool acknowledged(request &r, void (*run)(request &, json::view data)) {
    if (!r.has_envelope())
        return false;
    if (const json::view data = members_of(r))
        run(r, data);
    r.acknowledge();
    return true;
}

}  // namespace

void deassociate(request &r, json::view element) {
    request_members members(r, element);
    const std::vector<const char *> macs = members.text_or_texts("mac");
    if (!members.ok())
        return;
    platform::reason why;
    if (platform::call(qzcap_wifi_deassociation, macs.data(), static_cast<unsigned>(macs.size()), why) < 0)
        r.fail(platform_failed, "qzcap_wifi_deassociation failed: %s", why.c_str());
}

bool handle_deassociation(request &r) {
    return acknowledged(r, deassociate);
}

bool handle_getrssiinfo(request &r) {
    if (!r.has_envelope())
        return false;
    json::value stations = heard_stations(r).take();
    if (!stations) {
        r.fail(platform_failed, too_long);
        stations = json::array().take();
    }
    r.reply = r.reply_of("rssiinfo")
                  .number("errcode", r.errcode())
                  .text("errmsg", r.errmsg())
                  .add("data", stations)
                  .take();
    return true;
}

bool handle_startaprssiquery(request &r) {
    return acknowledged(r, start_rssi_query);
}

bool handle_startstabsstransitionrequest(request &r) {
    return acknowledged(r, move_station);
}

}  // namespace arvok::gateway
