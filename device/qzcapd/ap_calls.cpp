// The access-point interfaces of the radios.
#include <array>
#include <cstdio>

#include "bands.h"
#include "calls_table.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

constexpr const char *no_interface = "the device has no such interface";
constexpr int max_interfaces = 8;

/// The stored record that the band and index arguments name, and its key.
cJSON *find_interface(World &world, const char *name, const cJSON *args, std::string *key) {
    const double index = get_number(args, "index");
    *key = std::to_string(static_cast<long long>(index > 0 && index < 1e9 ? index : 0));
    return get(of_band(world.state, name, args, ap_codes), *key);
}

Reply ap_list(World &world, const cJSON *args) {
    const cJSON *aps = of_band(world.state, "wifi_ap", args, ap_codes);
    if (aps == nullptr) {
        return refused("band: the device has no such band");
    }
    json_ptr list(cJSON_CreateArray());
    const cJSON *ap = nullptr;
    cJSON_ArrayForEach(ap, aps) {
        cJSON_AddItemToArray(list.get(), project(capi::wifi_ap, ap, "index", ap->string).release());
    }
    return with_list(std::move(list));
}

Reply ap_get(World &world, const cJSON *args) {
    std::string key;
    const cJSON *ap = find_interface(world, "wifi_ap", args, &key);
    return ap != nullptr ? with_record(project(capi::wifi_ap, ap, "index", key)) : refused(no_interface);
}

std::string ap_fault(const cJSON *record) {
    const char *enable = get_text(record, "enable");
    const char *ssid = get_text(record, "ssid");
    if (enable != nullptr && !is_one_of(enable, "yes", "no")) {
        return "wifi_ap.enable: must be yes or no";
    }
    return ssid != nullptr && std::string(ssid).size() > 32 ? "wifi_ap.ssid: longer than 32 bytes" : "";
}

void settle(cJSON *ap, const cJSON *record) {
    apply(capi::wifi_ap, ap, record);
    const char *enable = get_text(ap, "enable");
    put_number(ap, "inuse", enable != nullptr && std::string(enable) == "yes" ? 1 : 0);
}

Reply ap_set(World &world, const cJSON *args) {
    std::string key;
    cJSON *ap = find_interface(world, "wifi_ap", args, &key);
    if (ap == nullptr) {
        return refused(no_interface);
    }
    if (const std::string fault = ap_fault(get(args, "record")); !fault.empty()) {
        return refused(fault);
    }
    settle(ap, get(args, "record"));
    return done();
}

/// The interface's own MAC: the device's, with the radio and the interface in the last two bytes.
std::string bssid_of(const cJSON *state, double band, int index) {
    const char *mac = get_text(get(state, "devinfo"), "mac");
    char tail[8];
    std::snprintf(tail, sizeof(tail), "%02X:%02X", band == ap_codes.band_2g ? 1U : 2U,
                  static_cast<unsigned>(index) & 255U);
    return std::string(mac != nullptr ? mac : "").substr(0, 12) + tail;
}

Reply ap_add(World &world, const cJSON *args) {
    cJSON *aps = of_band(world.state, "wifi_ap", args, ap_codes);
    if (aps == nullptr) {
        return refused("band: the device has no such band");
    }
    if (const std::string fault = ap_fault(get(args, "record")); !fault.empty()) {
        return refused(fault);
    }
    int index = 1;
    while (get(aps, std::to_string(index)) != nullptr) {
        ++index;
    }
    if (index > max_interfaces) {
        return refused("no free interface");
    }
    json_ptr ap(cJSON_CreateObject());
    put_text(ap.get(), "bssid", bssid_of(world.state, get_number(args, "band"), index));
    settle(ap.get(), get(args, "record"));
    put(aps, std::to_string(index), std::move(ap));
    if (cJSON *stats = of_band(world.state, "wifi_apstat", args, ap_codes)) {
        put(stats, std::to_string(index), json_ptr(cJSON_CreateObject()));
    }
    return with_value(index);
}

Reply ap_delete(World &world, const cJSON *args) {
    std::string key;
    if (find_interface(world, "wifi_ap", args, &key) == nullptr) {
        return refused(no_interface);
    }
    if (key == "1") {
        return refused("the main interface cannot be deleted");
    }
    for (const char *name : {"wifi_ap", "wifi_apstat"}) {
        if (cJSON *band = of_band(world.state, name, args, ap_codes)) {
            cJSON_DeleteItemFromObjectCaseSensitive(band, key.c_str());
        }
    }
    return done();
}

Reply ap_stats(World &world, const cJSON *args) {
    std::string key;
    const cJSON *stats = find_interface(world, "wifi_apstat", args, &key);
    return stats != nullptr ? with_record(project(capi::wifi_apstat, stats)) : refused(no_interface);
}

}  // namespace

std::span<const Row> ap_rows() {
    const Param band{Type::number, "band"};
    const Param index{Type::number, "index"};
    const Param record{Type::record, "record", true, &capi::wifi_ap};
    static const std::array rows{
        Row{&call_of("qzcap_wifi_ap_list"), false, {band}, ap_list},
        Row{&call_of("qzcap_wifi_ap_get"), false, {band, index}, ap_get},
        Row{&call_of("qzcap_wifi_ap_set"), true, {band, index, record}, ap_set},
        Row{&call_of("qzcap_wifi_ap_set_async"), true, {band, index, record}, ap_set},
        Row{&call_of("qzcap_wifi_ap_add"), true, {band, record}, ap_add},
        Row{&call_of("qzcap_wifi_ap_delete"), true, {band, index}, ap_delete},
        Row{&call_of("qzcap_wifi_ap_stats"), false, {band, index}, ap_stats},
    };
    return rows;
}

}  // namespace arvok::qzcapd
