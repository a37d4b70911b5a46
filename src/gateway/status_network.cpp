// Status items about the radios, the hosts on the LAN, the neighbourhood and the mesh.

#include <span>

#include "base/fields.h"
#include "gateway/bandwidth.h"
#include "gateway/handlers.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

using traffic_record = handle<qzcap_wifi_apstat, &qzcap_free_wifi_apstat>;
using backhaul_record = handle<qzcap_backhaulbss, &qzcap_free_backhaulbss>;
using neighbour_list = platform::record_list<qzcap_neighbourinfo, &qzcap_free_neighbourinfo>;
using score_list = platform::record_list<qzcap_channel_score, &qzcap_free_channel_score>;

constexpr std::size_t host_ssid_max = 63;

// --- radios ---

constexpr field<qzcap_wifi_apstat> traffic_fields[] = {
    {"totalBytesSent", decimal{&qzcap_wifi_apstat::bytessent}},
    {"totalBytesReceived", decimal{&qzcap_wifi_apstat::bytesreceived}},
    {"totalPacketsSent", decimal{&qzcap_wifi_apstat::packetssent}},
    {"totalPacketsReceived", decimal{&qzcap_wifi_apstat::packetsreceived}},
    {"errorsSent", &qzcap_wifi_apstat::errorssent},
    {"errorsReceived", &qzcap_wifi_apstat::errorsreceived},
    {"discardPacketsSent", &qzcap_wifi_apstat::discardsent},
    {"discardPacketsReceived", &qzcap_wifi_apstat::discardreceived},
};

// One member for each band that has a radio record.
template <typename Add>
json::value by_band(request &r, Add add) {
    if (!r.services.cache.refresh_radios())
        return r.error_item(platform_failed, "update_wifi_info failed");
    json::object object;
    for (const platform::band &band : r.services.cache.device_bands())
        if (const qzcap_wifiinfo *radio = r.services.cache.radio(band))
            add(object, band.word, *radio);
    return object.take();
}

// What a radio may be set to, whatever the country.
constexpr int first_channels[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
constexpr int second_channels[] = {36, 40, 44, 48, 52, 56, 60, 64, 149, 153, 157, 161, 165};

json::value fixed_channels(const platform::band &band) {
    json::array channels;
    for (const int channel : std::span(band.radio == QZCAP_RADIO_2G ? first_channels : second_channels))
        channels.add(json::number(channel));
    return channels.take();
}

// --- LAN hosts ---

constexpr field<qzcap_laninfo> host_fields_before_ssid[] = {
    {"mac", &qzcap_laninfo::mac},
    {"vmac", &qzcap_laninfo::vmac},
    {"hostname", &qzcap_laninfo::hostname},
    {"onlineTime", printed<qzcap_laninfo, std::uint32_t>{&qzcap_laninfo::onlinetime}},
    {"uploadspeed", &qzcap_laninfo::uploadspeed},
    {"downloadspeed", &qzcap_laninfo::downloadspeed},
    {"connecttype", &qzcap_laninfo::connecttype},
    {"band", &qzcap_laninfo::band},
    {"rssi", printed<qzcap_laninfo, std::int32_t>{&qzcap_laninfo::rssi}},
    {"ipaddr", &qzcap_laninfo::ipaddr},
    {"port", &qzcap_laninfo::port},
};

constexpr field<qzcap_laninfo> host_fields_behind_rate[] = {
    {"duplexmode", &qzcap_laninfo::duplexmode},
    {"bytessent", decimal{&qzcap_laninfo::bytessent}},
    {"bytesreceived", decimal{&qzcap_laninfo::bytesreceived}},
    {"packetssent", decimal{&qzcap_laninfo::packetssent}},
    {"packetsreceived", decimal{&qzcap_laninfo::packetsreceived}},
    {"crcerror", &qzcap_laninfo::crcerror},
    {"ipaddr6", &qzcap_laninfo::ipaddr6},
    {"internetaccess", &qzcap_laninfo::internetaccess},
    {"storageaccess", &qzcap_laninfo::storageaccess},
    {"active", &qzcap_laninfo::active},
    {"activetime", &qzcap_laninfo::activetime},
    {"inactivetime", &qzcap_laninfo::inactivetime},
    {"brand", &qzcap_laninfo::brand},
    {"model", &qzcap_laninfo::model},
};

json::value host_item(const qzcap_laninfo &host, const qzcap_wifi_ap *access_point) {
    const std::string_view ssid = view_of(access_point ? access_point->ssid : nullptr);
    const std::uint32_t mbits = host.negorate / 1000;
    json::object item;
    add_fields(item, host, host_fields_before_ssid);
    item.text("ssid", cut(ssid, host_ssid_max)).number("negorate", mbits);
    add_fields(item, host, host_fields_behind_rate);
    return item.take();
}

// --- neighbourhood ---

json::value neighbour_item(const qzcap_neighbourinfo &heard) {
    return json::object()
        .text("rfband", heard.rfband)
        .text("ssidname", heard.ssidname)
        .text("bssid", heard.bssid)
        .text("networktype", heard.networktype)
        .number("channel", heard.channel)
        .digits("rssi", heard.rssi)
        .text("standard", heard.standard)
        .text("bandwidth", bandwidth_text(heard.bandwidth))
        .take();
}

// The scores of one band; none when the platform does not tell.
json::value channel_scores(const platform::band &band) {
    const auto scores = platform::fetch_list<score_list>(qzcap_get_channel_score, band.radio);
    if (!scores)
        return {};
    json::array quality;
    for (const qzcap_channel_score *of : *scores)
        quality.add(json::object().number("ch", of->channel).number("score", of->score).take());
    return json::object().text("band", band.word).add("quality", quality.take()).take();
}

}  // namespace

json::value get_channel(request &r) {
    return by_band(r, [](json::object &object, const char *word, const qzcap_wifiinfo &radio) {
        object.number(word, radio.current_channel);
    });
}

json::value get_load(request &r) {
    return by_band(r, [](json::object &object, const char *word, const qzcap_wifiinfo &radio) {
        object.text(word, radio.load);
    });
}

json::value get_wlanstats(request &r) {
    if (!r.services.cache.refresh_access_points())
        return r.error_item(platform_failed, "update_ap_info failed");
    json::array array;
    for (const platform::band &band : r.services.cache.device_bands())
        for (const qzcap_wifi_ap *access_point : r.services.cache.access_points(band)) {
            const traffic_record traffic(
                platform::call(qzcap_wifi_ap_stats, band.access_point, access_point->index));
            if (!traffic)
                return r.error_item(platform_failed, "qzcap_wifi_ap_stats failed");
            json::object item;
            item.number("apidx", static_cast<double>(access_point->index) - 1)
                .text("ssid", access_point->ssid)
                .text("band", band.word);
            add_fields(item, *traffic, traffic_fields);
            array.add(item.take());
        }
    return array.take();
}

json::value get_capability(request &r) {
    if (!r.services.cache.refresh_device())
        return r.error_item(platform_failed, "qzcap_get_devinfo failed");
    if (!r.services.cache.refresh_radios())
        return r.error_item(platform_failed, "update_wifi_info failed");
    json::array wifi, vsie;
    for (const platform::band &band : r.services.cache.device_bands()) {
        const qzcap_wifiinfo *radio = r.services.cache.radio(band);
        if (!radio)
            continue;
        wifi.add(json::object()
                     .text("band", band.word)
                     .text("auth", radio->supported_auth)
                     .text("wifimode", radio->supported_modes)
                     .add("channel", fixed_channels(band))
                     .take());
        vsie.add(json::object().text("band", band.word).number("maxCnt", 3).number("maxLen", 255).take());
    }
    return json::object()
        .number("supportMesh", r.services.cache.device().supportMesh)
        .add("WiFi", wifi.take())
        .add("vsie", vsie.take())
        .take();
}

json::value get_real_devinfo(request &r) {
    const auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    if (!hosts)
        return r.error_item(platform_failed, "qzcap_list_laninfo failed");
    if (!r.services.cache.refresh_access_points())
        return r.error_item(platform_failed, "update_ap_info failed");
    json::array array;
    for (const qzcap_laninfo *host : *hosts)
        if (host->active)
            array.add(host_item(*host, r.services.cache.access_point_of(*host)));
    return array.take();
}

json::value get_neighborinfo(request &r) {
    const auto neighbours = platform::fetch_list<neighbour_list>(qzcap_get_neighbourinfo);
    if (!neighbours)
        return r.error_item(platform_failed, "qzcap_get_neighbourinfo failed");
    json::array array;
    for (const qzcap_neighbourinfo *heard : *neighbours)
        array.add(neighbour_item(*heard));
    return array.take();
}

// Both bands are asked for on every device, and stand or fall together.
json::value get_channel_quality(request &r) {
    json::array array;
    for (const platform::band &band : platform::bands) {
        const json::value scores = channel_scores(band);
        if (!scores)
            return r.error_item(platform_failed, "qzcap_get_channel_score failed");
        array.add(scores);
    }
    return array.take();
}

std::optional<std::string_view> add_map_info(json::object &object) {
    const platform::mesh_record mesh(platform::call(qzcap_get_mesh));
    if (!mesh)
        return "qzcap_get_mesh failed";
    const bool controller = view_of(mesh->role) == "controller";
    const backhaul_record backhaul(controller ? platform::call(qzcap_mesh_backhaulbss) : nullptr);
    if (controller && !backhaul)
        return "qzcap_mesh_backhaulbss failed";
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac);
    if (backhaul)
        object.add("backhaulBSS", json::object()
                                      .text("ssid", backhaul->ssid)
                                      .text("key", backhaul->key)
                                      .text("auth", backhaul->auth)
                                      .text("encrypt", backhaul->encrypt)
                                      .take());
    return std::nullopt;
}

json::value get_map_info(request &r) {
    json::object object;
    if (const auto failure = add_map_info(object))
        return r.error_item(platform_failed, "%s", failure->data());
    return object.take();
}

json::value get_map_topology(request &r) {
    const platform::mesh_record mesh(platform::call(qzcap_get_mesh));
    if (!mesh)
        return r.error_item(platform_failed, "qzcap_get_mesh failed");
    const platform::owned_text text(platform::call(qzcap_mesh_topo, 0));
    const json::document topology = text ? json::parse(text.get()) : json::document();
    if (!topology.root().is_object())
        return r.error_item(platform_failed, "qzcap_mesh_topo failed");
    json::object object(topology.root());
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac).number("onlineTime", mesh->onlinetime);
    return json::array().add(object.take()).take();
}

}  // namespace arvok::gateway
