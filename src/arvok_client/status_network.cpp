// Status items about the radios, the hosts on the LAN, the neighbourhood and the mesh.

#include "arvok_client/bands.h"
#include "arvok_client/handlers.h"
#include "common/fields.h"

namespace arvok {
namespace {

using apstat_ptr = handle<qzcap_wifi_apstat, &qzcap_free_wifi_apstat>;
using backhaulbss_ptr = handle<qzcap_backhaulbss, &qzcap_free_backhaulbss>;
using neighbours_ptr = std::unique_ptr<qzcap_neighbourinfo *, release_list_with<&qzcap_free_neighbourinfo>>;
using scores_ptr = std::unique_ptr<qzcap_channel_score *, release_list_with<&qzcap_free_channel_score>>;

constexpr std::size_t host_ssid_max = 63;

// --- radios ---

constexpr field<qzcap_wifi_apstat> apstat_fields[] = {
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
json_ptr by_band(Add add) {
    if (update_wifi_info() != 0)
        return arvok_error_item(err_platform, "update_wifi_info failed");
    json_object object;
    for (const wifi_band &band : device_bands())
        if (const qzcap_wifiinfo *radio = radio_of(band))
            add(object, band.word, *radio);
    return object.take();
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

json_ptr host_item(const qzcap_laninfo &host) {
    const qzcap_wifi_ap *ap = ap_of_host(host);
    const std::string ssid = std::string(text_or_empty(ap ? ap->ssid : nullptr)).substr(0, host_ssid_max);
    const std::uint32_t mbits = host.negorate / 1000;
    json_object item;
    add_fields(item, host, host_fields_before_ssid);
    item.text("ssid", ssid.c_str()).number("negorate", mbits);
    add_fields(item, host, host_fields_behind_rate);
    return item.take();
}

// --- neighbourhood ---

json_ptr neighbour_item(const qzcap_neighbourinfo &heard) {
    json_object item;
    item.text("rfband", heard.rfband)
        .text("ssidname", heard.ssidname)
        .text("bssid", heard.bssid)
        .text("networktype", heard.networktype)
        .number("channel", heard.channel)
        .text("rssi", std::to_string(heard.rssi).c_str())
        .text("standard", heard.standard)
        .text("bandwidth", bandwidth_text(heard.bandwidth));
    return item.take();
}

// The scores of one band; null when the platform does not tell.
json_ptr channel_scores(const wifi_band &band) {
    unsigned int count = 0;
    qzcap_channel_score **list = nullptr;
    if (qzcap_get_channel_score(band.radio, &count, &list) < 0)
        return nullptr;
    const scores_ptr scores(list, {count});
    json_ptr quality(cJSON_CreateArray());
    for (unsigned int i = 0; i < count; i++)
        json_append(quality.get(),
                    json_object().number("ch", list[i]->channel).number("score", list[i]->score).take());
    return json_object().text("band", band.word).add("quality", std::move(quality)).take();
}

constexpr const char *fixed_channels(const wifi_band &band) {
    return band.radio == QZCAP_RADIO_2G ? "[1,2,3,4,5,6,7,8,9,10,11,12,13]"
                                        : "[36,40,44,48,52,56,60,64,149,153,157,161,165]";
}

}  // namespace

json_ptr get_channel() {
    return by_band([](json_object &object, const char *word, const qzcap_wifiinfo &radio) {
        object.number(word, radio.current_channel);
    });
}

json_ptr get_load() {
    return by_band([](json_object &object, const char *word, const qzcap_wifiinfo &radio) {
        object.text(word, radio.load);
    });
}

json_ptr get_wlanstats() {
    if (update_ap_info() != 0)
        return arvok_error_item(err_platform, "update_ap_info failed");
    json_ptr array(cJSON_CreateArray());
    for (const wifi_band &band : device_bands()) {
        for (const qzcap_wifi_ap *ap : aps_of(band)) {
            const apstat_ptr stats(qzcap_wifi_ap_stats(band.ap, ap->index));
            if (!stats)
                return arvok_error_item(err_platform, "qzcap_wifi_ap_stats failed");
            json_object item;
            item.number("apidx", static_cast<double>(ap->index) - 1)
                .text("ssid", ap->ssid)
                .text("band", band.word);
            add_fields(item, *stats, apstat_fields);
            json_append(array.get(), item.take());
        }
    }
    return array;
}

json_ptr get_capability() {
    if (update_dev_info() != 0)
        return arvok_error_item(err_platform, "qzcap_get_devinfo failed");
    if (update_wifi_info() != 0)
        return arvok_error_item(err_platform, "update_wifi_info failed");
    json_ptr wifi(cJSON_CreateArray()), vsie(cJSON_CreateArray());
    for (const wifi_band &band : device_bands()) {
        const qzcap_wifiinfo *radio = radio_of(band);
        if (!radio)
            continue;
        json_append(wifi.get(), json_object()
                                    .text("band", band.word)
                                    .text("auth", radio->supported_auth)
                                    .text("wifimode", radio->supported_modes)
                                    .add("channel", json_parse(fixed_channels(band)))
                                    .take());
        json_append(vsie.get(),
                    json_object().text("band", band.word).number("maxCnt", 3).number("maxLen", 255).take());
    }
    return json_object()
        .number("supportMesh", g_ctx.devinfo->supportMesh)
        .add("WiFi", std::move(wifi))
        .add("vsie", std::move(vsie))
        .take();
}

json_ptr get_real_devinfo() {
    laninfos_ptr hosts;
    if (!list_hosts(hosts))
        return arvok_error_item(err_platform, "qzcap_list_laninfo failed");
    if (update_ap_info() != 0)
        return arvok_error_item(err_platform, "update_ap_info failed");
    json_ptr array(cJSON_CreateArray());
    for (const qzcap_laninfo *host : hosts_of(hosts))
        if (host->active)
            json_append(array.get(), host_item(*host));
    return array;
}

json_ptr get_neighborinfo() {
    unsigned int count = 0;
    qzcap_neighbourinfo **list = nullptr;
    if (qzcap_get_neighbourinfo(&count, &list) < 0)
        return arvok_error_item(err_platform, "qzcap_get_neighbourinfo failed");
    const neighbours_ptr neighbours(list, {count});
    json_ptr array(cJSON_CreateArray());
    for (unsigned int i = 0; i < count; i++)
        json_append(array.get(), neighbour_item(*list[i]));
    return array;
}

// Both bands are asked for on every device, and stand or fall together.
json_ptr get_channel_quality() {
    json_ptr array(cJSON_CreateArray());
    for (const wifi_band &band : bands) {
        json_ptr scores = channel_scores(band);
        if (!scores)
            return arvok_error_item(err_platform, "qzcap_get_channel_score failed");
        json_append(array.get(), std::move(scores));
    }
    return array;
}

const char *add_map_info(json_object &object) {
    const mesh_ptr mesh(qzcap_get_mesh());
    if (!mesh)
        return "qzcap_get_mesh failed";
    const bool controller = _strcmp(mesh->role, "controller") == 0;
    const backhaulbss_ptr backhaul(controller ? qzcap_mesh_backhaulbss() : nullptr);
    if (controller && !backhaul)
        return "qzcap_mesh_backhaulbss failed";
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac);
    if (backhaul)
        object.add("backhaulBSS", json_object()
                                      .text("ssid", backhaul->ssid)
                                      .text("key", backhaul->key)
                                      .text("auth", backhaul->auth)
                                      .text("encrypt", backhaul->encrypt)
                                      .take());
    return nullptr;
}

json_ptr get_map_info() {
    json_object object;
    if (const char *failed = add_map_info(object))
        return arvok_error_item(err_platform, "%s", failed);
    return object.take();
}

json_ptr get_map_topology() {
    const mesh_ptr mesh(qzcap_get_mesh());
    if (!mesh)
        return arvok_error_item(err_platform, "qzcap_get_mesh failed");
    const qz_text topology(qzcap_mesh_topo(0));
    if (!topology)
        return arvok_error_item(err_platform, "qzcap_mesh_topo failed");
    json_ptr parsed = json_parse(topology.get());
    if (!cJSON_IsObject(parsed.get()))
        return arvok_error_item(err_platform, "qzcap_mesh_topo failed");
    json_object object(std::move(parsed));
    object.text("mapRole", mesh->role).text("mapAlmac", mesh->almac).number("onlineTime", mesh->onlinetime);
    json_ptr array(cJSON_CreateArray());
    json_append(array.get(), object.take());
    return array;
}

}  // namespace arvok
