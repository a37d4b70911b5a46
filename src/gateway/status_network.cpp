// Status items about the radios, the hosts on the LAN, the neighbourhood and the mesh.

#include <span>

#include "gateway/bandwidth.h"
#include "gateway/handlers.h"
#include "gateway/status_fields.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

using traffic_record = handle<qzcap_wifi_apstat, &qzcap_free_wifi_apstat>;
using backhaul_record = handle<qzcap_backhaulbss, &qzcap_free_backhaulbss>;
using neighbour_list = platform::record_list<qzcap_neighbourinfo, &qzcap_free_neighbourinfo>;
using score_list = platform::record_list<qzcap_channel_score, &qzcap_free_channel_score>;

// --- radios ---

// One member for each band that has a radio record.
template <typename Add>
bool by_band(request &r, json::writer &item, Add add) {
    if (!r.services.cache.refresh_radios())
        return r.fail_item(platform_failed, "update_wifi_info failed");
    item.open_object();
    for (const platform::band &band : r.services.cache.device_bands())
        if (const qzcap_wifiinfo *radio = r.services.cache.radio(band))
            add(band.word, *radio);
    item.close();
    return true;
}

// What a radio may be set to, whatever the country.
constexpr int first_channels[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
constexpr int second_channels[] = {36, 40, 44, 48, 52, 56, 60, 64, 149, 153, 157, 161, 165};

void add_fixed_channels(json::writer &to, const platform::band &band) {
    to.open_array("channel");
    for (const int channel : std::span(band.radio == QZCAP_RADIO_2G ? first_channels : second_channels))
        to.number(channel);
    to.close();
}

// --- LAN hosts ---

void add_host(json::writer &to, const qzcap_laninfo &host, const qzcap_wifi_ap *access_point) {
    const std::string_view ssid = view_of(access_point ? access_point->ssid : nullptr);
    const std::uint32_t mbits = host.negorate / 1000;
    to.open_object();
    add_fields(to, host, host_fields_before_ssid);
    to.text("ssid", cut(ssid, host_ssid_max)).number("negorate", mbits);
    add_fields(to, host, host_fields_behind_rate);
    to.close();
}

// --- neighbourhood ---

void add_neighbour(json::writer &to, const qzcap_neighbourinfo &heard) {
    to.open_object()
        .text("rfband", heard.rfband)
        .text("ssidname", heard.ssidname)
        .text("bssid", heard.bssid)
        .text("networktype", heard.networktype)
        .number("channel", heard.channel)
        .digits("rssi", heard.rssi)
        .text("standard", heard.standard)
        .text("bandwidth", bandwidth_text(heard.bandwidth))
        .close();
}

// The scores of one band, if the platform tells them.
bool add_channel_scores(json::writer &to, const platform::band &band) {
    const auto scores = platform::fetch_list<score_list>(qzcap_get_channel_score, band.radio);
    if (!scores)
        return false;
    to.open_object().text("band", band.word).open_array("quality");
    for (const qzcap_channel_score *of : *scores)
        to.open_object().number("ch", of->channel).number("score", of->score).close();
    to.close().close();
    return true;
}

}  // namespace

bool get_channel(request &r, json::writer &item) {
    return by_band(r, item, [&](const char *word, const qzcap_wifiinfo &radio) {
        item.number(word, radio.current_channel);
    });
}

bool get_load(request &r, json::writer &item) {
    return by_band(r, item,
                   [&](const char *word, const qzcap_wifiinfo &radio) { item.text(word, radio.load); });
}

bool get_wlanstats(request &r, json::writer &item) {
    if (!r.services.cache.refresh_access_points())
        return r.fail_item(platform_failed, "update_ap_info failed");
    item.open_array();
    for (const platform::band &band : r.services.cache.device_bands())
        for (const qzcap_wifi_ap *access_point : r.services.cache.access_points(band)) {
            const traffic_record traffic(
                platform::call(qzcap_wifi_ap_stats, band.access_point, access_point->index));
            if (!traffic)
                return r.fail_item(platform_failed, "qzcap_wifi_ap_stats failed");
            item.open_object()
                .number("apidx", static_cast<double>(access_point->index) - 1)
                .text("ssid", access_point->ssid)
                .text("band", band.word);
            add_fields(item, *traffic, traffic_fields);
            item.close();
        }
    item.close();
    return true;
}

bool get_capability(request &r, json::writer &item) {
    if (!r.services.cache.refresh_device())
        return r.fail_item(platform_failed, "qzcap_get_devinfo failed");
    if (!r.services.cache.refresh_radios())
        return r.fail_item(platform_failed, "update_wifi_info failed");
    item.open_object().number("supportMesh", r.services.cache.device().supportMesh).open_array("WiFi");
    for (const platform::band &band : r.services.cache.device_bands())
        if (const qzcap_wifiinfo *radio = r.services.cache.radio(band)) {
            item.open_object()
                .text("band", band.word)
                .text("auth", radio->supported_auth)
                .text("wifimode", radio->supported_modes);
            add_fixed_channels(item, band);
            item.close();
        }
    item.close().open_array("vsie");
    for (const platform::band &band : r.services.cache.device_bands())
        if (r.services.cache.radio(band))
            item.open_object().text("band", band.word).number("maxCnt", 3).number("maxLen", 255).close();
    item.close().close();
    return true;
}

bool get_real_devinfo(request &r, json::writer &item) {
    const auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    if (!hosts)
        return r.fail_item(platform_failed, "qzcap_list_laninfo failed");
    if (!r.services.cache.refresh_access_points())
        return r.fail_item(platform_failed, "update_ap_info failed");
    item.open_array();
    for (const qzcap_laninfo *host : *hosts)
        if (host->active)
            add_host(item, *host, r.services.cache.access_point_of(*host));
    item.close();
    return true;
}

bool get_neighborinfo(request &r, json::writer &item) {
    const auto neighbours = platform::fetch_list<neighbour_list>(qzcap_get_neighbourinfo);
    if (!neighbours)
        return r.fail_item(platform_failed, "qzcap_get_neighbourinfo failed");
    item.open_array();
    for (const qzcap_neighbourinfo *heard : *neighbours)
        add_neighbour(item, *heard);
    item.close();
    return true;
}

// Both bands are asked for on every device, and stand or fall together.
bool get_channel_quality(request &r, json::writer &item) {
    item.open_array();
    for (const platform::band &band : platform::bands)
        if (!add_channel_scores(item, band))
            return r.fail_item(platform_failed, "qzcap_get_channel_score failed");
    item.close();
    return true;
}

std::optional<std::string_view> add_map_info(json::writer &object) {
    const platform::mesh_record mesh(platform::call(qzcap_get_mesh));
    if (!mesh)
        return "qzcap_get_mesh failed";
    const bool controller = view_of(mesh->role) == "controller";
    const backhaul_record backhaul(controller ? platform::call(qzcap_mesh_backhaulbss) : nullptr);
    if (controller && !backhaul)
        return "qzcap_mesh_backhaulbss failed";
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac);
    if (backhaul)
        object.open_object("backhaulBSS")
            .text("ssid", backhaul->ssid)
            .text("key", backhaul->key)
            .text("auth", backhaul->auth)
            .text("encrypt", backhaul->encrypt)
            .close();
    return std::nullopt;
}

bool get_map_info(request &r, json::writer &item) {
    item.open_object();
    if (const auto failure = add_map_info(item))
        return r.fail_item(platform_failed, "%s", failure->data());
    item.close();
    return true;
}

bool get_map_topology(request &r, json::writer &item) {
    const platform::mesh_record mesh(platform::call(qzcap_get_mesh));
    if (!mesh)
        return r.fail_item(platform_failed, "qzcap_get_mesh failed");
    const platform::owned_text text(platform::call(qzcap_mesh_topo, 0));
    const json::document topology = text ? json::parse(text.get()) : json::document();
    if (!topology.root().is_object())
        return r.fail_item(platform_failed, "qzcap_mesh_topo failed");
    json::object object(topology.root(), {"mapRole", "mapAlmac", "onlineTime"});
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac).number("onlineTime", mesh->onlinetime);
    item.open_array().add(object.take()).close();
    return true;
}

}  // namespace arvok::gateway
