// LAN hosts, roaming, the mesh, and vendor-specific elements.
#include <strings.h>

#include <array>
#include <cstdlib>

#include "calls_table.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

constexpr int roaming_object = 16;
constexpr int max_query_ms = 600000;
constexpr std::size_t max_element_digits = 2 * 255;

Reply lan_list(World &world, const cJSON *) {
    json_ptr list(cJSON_CreateArray());
    const cJSON *host = nullptr;
    cJSON_ArrayForEach(host, get(world.state, "laninfo")) {
        cJSON_AddItemToArray(list.get(), project(capi::laninfo, host, "mac", host->string).release());
    }
    return with_list(std::move(list));
}

Reply lan_set(World &world, const cJSON *args) {
    cJSON *host = nullptr;
    cJSON_ArrayForEach(host, get(world.state, "laninfo")) {
        if (get_number(host, "index") == get_number(args, "index")) {
            apply(capi::laninfo, host, get(args, "record"));
            return done();
        }
    }
    return refused("index: no such host");
}

Reply set_blacklist(World &world, const cJSON *args) {
    if (!is_one_of(get_text(args, "enable"), "yes", "no")) {
        return refused("enable: must be yes or no");
    }
    put(world.state, "blacklist", copy(args));
    return done();
}

/// The wireless host that is connected now, or null.
cJSON *find_station(World &world, const char *mac) {
    cJSON *host = nullptr;
    cJSON_ArrayForEach(host, get(world.state, "laninfo")) {
        if (mac != nullptr && strcasecmp(host->string, mac) == 0) {
            return get_number(host, "active") != 0 && get_number(host, "connecttype") == 1 ? host : nullptr;
        }
    }
    return nullptr;
}

Reply no_station(const char *mac) {
    return refused(std::string("no such station: ") + (mac != nullptr ? mac : ""));
}

Reply deassociation(World &world, const cJSON *args) {
    const cJSON *mac = nullptr;
    cJSON_ArrayForEach(mac, get(args, "macs")) {
        cJSON *station = find_station(world, mac->valuestring);
        if (station == nullptr) {
            return no_station(mac->valuestring);
        }
        put_number(station, "active", 0);
    }
    return done();
}

/// What the roaming object reports about a station.
Notification roaming_report(const World &world, const cJSON *station) {
    const char *band = get_text(station, "band");
    const cJSON *radio = get(get(world.state, "wifiinfo"), band != nullptr ? band : "");
    json_ptr entry(cJSON_CreateObject());
    put_text(entry.get(), "mac", station->string);
    put_number(entry.get(), "connecttime", get_number(station, "onlinetime"));
    put_number(entry.get(), "rssi", get_number(station, "rssi"));
    put_number(entry.get(), "channel", get_number(radio, "current_channel"));
    json_ptr report(cJSON_CreateArray());
    cJSON_AddItemToArray(report.get(), entry.release());
    json_ptr message(cJSON_CreateObject());
    put(message.get(), "roamingreport", std::move(report));
    return {roaming_object, "roamingreport", std::move(message)};
}

/// A station is measured for a while; then the roaming object tells how it was heard.
Reply hear_out(World &world, const cJSON *args) {
    const cJSON *query = get(args, "record");
    const char *mac = get_text(query, "mac");
    const cJSON *station = find_station(world, mac);
    const double duration = get_number(query, "duration");
    if (station == nullptr) {
        return no_station(mac);
    }
    if (duration < 0 || duration > max_query_ms) {
        return refused("rssi_query.duration: must be 0 to " + std::to_string(max_query_ms));
    }
    json_ptr message(cJSON_CreateObject());
    put_text(message.get(), "mac", station->string);
    put_number(message.get(), "rssi", get_number(station, "rssi"));
    Reply reply = done();
    reply.notifications.push_back({roaming_object, "aprssi", std::move(message), static_cast<int>(duration)});
    return reply;
}

/// An access-point interface, by its band and its index there; null when no interface has that BSSID.
struct Place {
    const char *band = nullptr, *index = nullptr;
};

Place find_access_point(const World &world, const char *bssid) {
    const cJSON *band = nullptr;
    cJSON_ArrayForEach(band, get(world.state, "wifi_ap")) {
        const cJSON *interface = nullptr;
        cJSON_ArrayForEach(interface, band) {
            const char *own = get_text(interface, "bssid");
            if (bssid != nullptr && own != nullptr && strcasecmp(own, bssid) == 0) {
                return {band->string, interface->string};
            }
        }
    }
    return {};
}

/// A station moves to another of the device's access points, and the roaming object reports it.
Reply move(World &world, const cJSON *args) {
    const cJSON *record = get(args, "record");
    const char *mac = get_text(record, "mac");
    cJSON *station = find_station(world, mac);
    const Place target = find_access_point(world, get_text(record, "bssid"));
    if (station == nullptr) {
        return no_station(mac);
    }
    if (target.band == nullptr) {
        return refused("bssid: no such access point");
    }
    put_text(station, "band", target.band);
    put_number(station, "port", std::atoi(target.index));
    Reply reply = done();
    reply.notifications.push_back(roaming_report(world, station));
    return reply;
}

Reply set_roaming(World &world, const char *name, const cJSON *args) {
    const char *enable = get_text(get(args, "record"), "enable");
    if (enable != nullptr && !is_one_of(enable, "yes", "no")) {
        return refused("roaming.enable: must be yes or no");
    }
    return set_stored_record(world, capi::roaming, name, args);
}

Reply topo(World &world, const cJSON *) {
    const cJSON *topology = get(world.state, "mesh_topo");
    return topology != nullptr ? with_text(print(topology)) : refused("the device has no mesh_topo");
}

Reply set_role(World &world, const cJSON *args) {
    const char *role = get_text(args, "role");
    if (!is_one_of(role, "controller", "agent") && !is_one_of(role, "auto", "auto")) {
        return refused("role: must be controller, agent or auto");
    }
    cJSON *mesh = get(world.state, "mesh");
    if (mesh == nullptr) {
        return refused("the device has no mesh");
    }
    put_text(mesh, "role", role);
    return done();
}

std::string element_fault(const cJSON *record, const char *owner) {
    const char *name = get_text(record, owner);
    const char *data = get_text(record, "data");
    if (name == nullptr || name[0] == '\0') {
        return std::string(owner) + ": must not be empty";
    }
    if (data == nullptr || data[0] == '\0') {
        return "data: must not be empty";
    }
    return std::string(data).size() > max_element_digits ? "data: longer than 255 bytes" : "";
}

Reply add_beacontx(World &world, const cJSON *args) {
    if (const std::string fault = element_fault(get(args, "record"), "name"); !fault.empty()) {
        return refused(fault);
    }
    if (get(world.state, "vsie_beacontx") == nullptr) {
        put(world.state, "vsie_beacontx", json_ptr(cJSON_CreateObject()));
    }
    cJSON *elements = get(world.state, "vsie_beacontx");
    int index = 0;
    while (get(elements, std::to_string(index)) != nullptr) {
        ++index;
    }
    json_ptr element = copy(get(args, "record"));
    put_text(element.get(), "state", "added");
    put(elements, std::to_string(index), std::move(element));
    return with_value(index);
}

/// A stopped element is gone.
Reply beacontx_action(World &world, const cJSON *args) {
    const double index = get_number(args, "index");
    const std::string key = std::to_string(static_cast<long long>(index >= 0 && index < 1e9 ? index : -1));
    const char *action = get_text(args, "action");
    cJSON *elements = get(world.state, "vsie_beacontx");
    cJSON *element = get(elements, key);
    if (!is_one_of(action, "start", "stop")) {
        return refused("action: must be start or stop");
    }
    if (element == nullptr) {
        return refused("index: no such element");
    }
    if (std::string(action) == "start") {
        put_text(element, "state", "started");
    } else {
        cJSON_DeleteItemFromObjectCaseSensitive(elements, key.c_str());
    }
    return done();
}

Reply delete_beacontx(World &world, const cJSON *args) {
    const std::string owner = get_text(args, "name");
    cJSON *elements = get(world.state, "vsie_beacontx");
    for (cJSON *element = elements != nullptr ? elements->child : nullptr; element != nullptr;) {
        cJSON *next = element->next;
        if (const char *name = get_text(element, "name"); name != nullptr && owner == name) {
            cJSON_Delete(cJSON_DetachItemViaPointer(elements, element));
        }
        element = next;
    }
    return done();
}

Reply add_proberesp(World &world, const cJSON *args) {
    if (const std::string fault = element_fault(get(args, "record"), "mac"); !fault.empty()) {
        return refused(fault);
    }
    if (get(world.state, "vsie_proberesp") == nullptr) {
        put(world.state, "vsie_proberesp", json_ptr(cJSON_CreateArray()));
    }
    cJSON_AddItemToArray(get(world.state, "vsie_proberesp"), copy(get(args, "record")).release());
    return done();
}

Param record_of(const capi::Record &kind) {
    return {Type::record, "record", true, &kind};
}

}  // namespace

std::span<const Row> station_rows() {
    static const std::array rows{
        Row{&call_of("qzcap_list_laninfo"), false, {}, lan_list},
        // Nobody is told of what can be set, and it is set whole or not at all.
        Row{&call_of("qzcap_set_laninfo"),
            false,
            {{Type::number, "index"}, record_of(capi::laninfo)},
            lan_set},
        Row{&call_of("qzcap_set_blacklist"),
            true,
            {{Type::text, "enable"}, {Type::texts, "macs"}},
            set_blacklist},
        Row{&call_of("qzcap_wifi_deassociation"), true, {{Type::texts, "macs"}}, deassociation},
        Row{&call_of("qzcap_get_roaming"),
            false,
            {},
            [](World &world, const cJSON *) { return stored_record(world, capi::roaming, "roaming"); }},
        Row{&call_of("qzcap_set_roaming"),
            true,
            {record_of(capi::roaming)},
            [](World &world, const cJSON *args) { return set_roaming(world, "roaming", args); }},
        Row{&call_of("qzcap_start_rssi_query"), false, {record_of(capi::rssi_query)}, hear_out},
        Row{&call_of("qzcap_bss_transition"), false, {record_of(capi::bsstransition)}, move},
        Row{&call_of("qzcap_get_mesh"),
            false,
            {},
            [](World &world, const cJSON *) { return stored_record(world, capi::mesh, "mesh"); }},
        Row{&call_of("qzcap_mesh_backhaulbss"),
            false,
            {},
            [](World &world, const cJSON *) {
                return stored_record(world, capi::backhaulbss, "backhaulbss");
            }},
        Row{&call_of("qzcap_mesh_topo"), false, {}, topo},
        Row{&call_of("qzcap_set_mesh_role"), true, {{Type::text, "role"}}, set_role},
        Row{&call_of("qzcap_get_mesh_roaming"),
            false,
            {},
            [](World &world, const cJSON *) { return stored_record(world, capi::roaming, "mesh_roaming"); }},
        Row{&call_of("qzcap_set_mesh_roaming"),
            true,
            {record_of(capi::roaming)},
            [](World &world, const cJSON *args) { return set_roaming(world, "mesh_roaming", args); }},
        // The same holds for the elements.
        Row{&call_of("qzcap_add_vsie_beacontx"), false, {record_of(capi::vsie_beacontx)}, add_beacontx},
        Row{&call_of("qzcap_vsie_beacontx_action"),
            false,
            {{Type::number, "index"}, {Type::text, "action"}},
            beacontx_action},
        Row{&call_of("qzcap_delete_vsie_beacontx_by_name"), false, {{Type::text, "name"}}, delete_beacontx},
        Row{&call_of("qzcap_add_vsie_proberesp"), false, {record_of(capi::vsie_proberesp)}, add_proberesp},
    };
    return rows;
}

}  // namespace arvok::qzcapd
