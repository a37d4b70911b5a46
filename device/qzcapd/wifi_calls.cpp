// The three switches, the radios, the schedule, and what the radios hear.
#include <array>
#include <cstdlib>

#include "bands.h"
#include "calls_table.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

constexpr const char *no_band = "band: the device has no such band";

/// Sets one switch by its bus key.
Reply set_switch(World &world, const cJSON *args) {
    if (cJSON_GetArraySize(args) != 1) {
        return refused("exactly one of wifiswitch, wpsswitch, arvoksync must be given");
    }
    const cJSON *given = args->child;
    if (!is_one_of(cJSON_GetStringValue(given), "on", "off")) {
        return refused(std::string(given->string) + ": must be on or off");
    }
    cJSON *switches = get(world.state, "wifi_switch");
    if (switches == nullptr) {
        return refused("the device has no wifi_switch");
    }
    put_text(switches, given->string, given->valuestring);
    return done();
}

Reply get_radio(World &world, const cJSON *args) {
    const cJSON *radio = of_band(world.state, "wifiinfo", args, radio_codes);
    return radio != nullptr ? with_record(project(capi::wifiinfo, radio)) : refused(no_band);
}

Reply set_radio(World &world, const cJSON *args) {
    cJSON *radio = of_band(world.state, "wifiinfo", args, radio_codes);
    const cJSON *record = get(args, "record");
    if (radio == nullptr) {
        return refused(no_band);
    }
    if (const char *enable = get_text(record, "enable");
        enable != nullptr && !is_one_of(enable, "yes", "no")) {
        return refused("wifiinfo.enable: must be yes or no");
    }
    if (get_number(record, "bandwidth") > 5) {
        return refused("wifiinfo.bandwidth: must be a code from 0 to 5");
    }
    if (get_number(record, "channel") < 0) {
        return refused("wifiinfo.channel: must be 0 (automatic) or a channel");
    }
    apply(capi::wifiinfo, radio, record);
    if (const double channel = get_number(radio, "channel"); channel != 0) {
        put_number(radio, "current_channel", channel);
    }
    return done();
}

Reply timer_list(World &world, const cJSON *) {
    json_ptr list(cJSON_CreateArray());
    const cJSON *timer = nullptr;
    cJSON_ArrayForEach(timer, get(world.state, "wifi_timer")) {
        cJSON_AddItemToArray(list.get(), project(capi::wifi_timer, timer, "id", timer->string).release());
    }
    return with_list(std::move(list));
}

std::string timer_fault(const cJSON *record) {
    for (const char *name : {"weekday", "time"}) {
        if (const char *text = get_text(record, name); text == nullptr || text[0] == '\0') {
            return std::string("wifi_timer.") + name + ": must not be empty";
        }
    }
    return is_one_of(get_text(record, "enable"), "yes", "no") ? "" : "wifi_timer.enable: must be yes or no";
}

Reply timer_add(World &world, const cJSON *args) {
    const cJSON *record = get(args, "record");
    if (const std::string fault = timer_fault(record); !fault.empty()) {
        return refused(fault);
    }
    if (get(world.state, "wifi_timer") == nullptr) {
        put(world.state, "wifi_timer", json_ptr(cJSON_CreateObject()));
    }
    cJSON *timers = get(world.state, "wifi_timer");
    int id = 1;
    while (get(timers, std::to_string(id)) != nullptr) {
        ++id;
    }
    put(timers, std::to_string(id), copy(record));
    return with_value(id);
}

cJSON *find_timer(World &world, const cJSON *args, std::string *key) {
    const double id = get_number(args, "id");
    *key = std::to_string(static_cast<long long>(id > 0 && id < 1e9 ? id : 0));
    return get(get(world.state, "wifi_timer"), *key);
}

Reply timer_set(World &world, const cJSON *args) {
    std::string key;
    cJSON *timer = find_timer(world, args, &key);
    if (timer == nullptr) {
        return refused("id: no such timer");
    }
    if (const std::string fault = timer_fault(get(args, "record")); !fault.empty()) {
        return refused(fault);
    }
    apply(capi::wifi_timer, timer, get(args, "record"));
    return done();
}

Reply timer_delete(World &world, const cJSON *args) {
    std::string key;
    if (find_timer(world, args, &key) == nullptr) {
        return refused("id: no such timer");
    }
    cJSON_DeleteItemFromObjectCaseSensitive(get(world.state, "wifi_timer"), key.c_str());
    return done();
}

json_ptr list_of(const capi::Record &kind, const cJSON *array) {
    json_ptr list(cJSON_CreateArray());
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, array) {
        cJSON_AddItemToArray(list.get(), project(kind, item).release());
    }
    return list;
}

Reply neighbours(World &world, const cJSON *) {
    return with_list(list_of(capi::neighbourinfo, get(world.state, "neighbourinfo")));
}

Reply channel_scores(World &world, const cJSON *args) {
    const cJSON *scores = of_band(world.state, "channel_score", args, radio_codes);
    return scores != nullptr ? with_list(list_of(capi::channel_score, scores)) : refused(no_band);
}

}  // namespace

cJSON *of_band(cJSON *state, const char *name, const cJSON *args, BandCodes codes) {
    const double code = get_number(args, "band");
    if (code == codes.band_2g) {
        return get(get(state, name), "2.4G");
    }
    const char *dual = get_text(get(state, "devinfo"), "support_5g");
    if (code == codes.band_5g && dual != nullptr && std::string(dual) == "yes") {
        return get(get(state, name), "5G");
    }
    return nullptr;
}

std::span<const Row> wifi_rows() {
    const Param radio{Type::record, "record", true, &capi::wifiinfo};
    const Param timer{Type::record, "record", true, &capi::wifi_timer};
    static const std::array rows{
        Row{&call_of("qzcap_get_wifi_switch"),
            false,
            {},
            [](World &world, const cJSON *) {
                return stored_record(world, capi::wifi_switch, "wifi_switch");
            }},
        Row{&call_of("qzcap_set_wifi_switch"),
            true,
            {{Type::text, "wifiswitch", false},
             {Type::text, "wpsswitch", false},
             {Type::text, "arvoksync", false}},
            set_switch},
        Row{&call_of("qzcap_get_wifiinfo"), false, {{Type::number, "band"}}, get_radio},
        Row{&call_of("qzcap_set_wifiinfo_async"), true, {{Type::number, "band"}, radio}, set_radio},
        Row{&call_of("qzcap_wifi_timer_list"), false, {}, timer_list},
        Row{&call_of("qzcap_wifi_timer_add"), true, {timer}, timer_add},
        Row{&call_of("qzcap_wifi_timer_set"), true, {{Type::number, "id"}, timer}, timer_set},
        Row{&call_of("qzcap_wifi_timer_delete"), true, {{Type::number, "id"}}, timer_delete},
        Row{&call_of("qzcap_get_neighbourinfo"), false, {}, neighbours},
        Row{&call_of("qzcap_get_channel_score"), false, {{Type::number, "band"}}, channel_scores},
        Row{&call_of("qzcap_wifi_channelscan"), false, {}, [](World &, const cJSON *) { return done(); }},
    };
    return rows;
}

}  // namespace arvok::qzcapd
