// The device itself, its switches and modes, its WAN and its cloud servers.
#include <algorithm>
#include <array>

#include "apps.h"
#include "calls_table.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

Reply get_led(World &world, const cJSON *) {
    const char *status = get_text(world.state, "led_switch");
    return status != nullptr ? with_text(status) : refused("the device has no led_switch");
}

Reply set_led(World &world, const cJSON *args) {
    const char *status = get_text(args, "status");
    if (!is_one_of(status, "on", "off")) {
        return refused("status: must be on or off");
    }
    put_text(world.state, "led_switch", status);
    return done();
}

Reply set_workmode(World &world, const cJSON *args) {
    const char *mode = get_text(args, "mode");
    if (!is_one_of(mode, "router", "bridge")) {
        return refused("mode: must be router or bridge");
    }
    cJSON *device = get(world.state, "devinfo");
    if (device == nullptr) {
        return refused("the device has no devinfo");
    }
    put_text(device, "mode", mode);
    return done();
}

Reply set_iptv(World &world, const cJSON *args) {
    const char *enable = get_text(get(args, "record"), "enable");
    if (enable != nullptr && !is_one_of(enable, "yes", "no")) {
        return refused("iptv.enable: must be yes or no");
    }
    return set_stored_record(world, capi::iptv, "iptv", args);
}

/// Back to the state that the daemon started with.
Reply reset(World &world, const cJSON *) {
    while (world.state->child != nullptr) {
        cJSON_Delete(cJSON_DetachItemViaPointer(world.state, world.state->child));
    }
    merge_patch(world.state, world.factory);
    world.apps.follow_document();
    return done();
}

Reply reboot(World &world, const cJSON *) {
    for (const char *name : {"waninfo", "mesh"}) {
        if (cJSON *record = get(world.state, name)) {
            put_number(record, "onlinetime", 0);
        }
    }
    return done();
}

/// The device restarts with the new firmware, whose version stands in the file's name: NAME-VERSION.SUFFIX.
Reply upgrade(World &world, const cJSON *args) {
    std::string version = get_text(args, "url");
    if (version.empty()) {
        return refused("url: must not be empty");
    }
    version.erase(0, version.rfind('/') + 1);
    version.erase(std::min(version.rfind('.'), version.size()));
    const std::size_t dash = version.rfind('-');
    cJSON *device = get(world.state, "devinfo");
    if (device != nullptr && dash != std::string::npos) {
        put_text(device, "swversion", version.substr(dash + 1));
    }
    return reboot(world, args);
}

/// Replaces the whole record: a server or an identity that is not given is dropped.
Reply set_serverinfo(World &world, const cJSON *args) {
    put(world.state, "serverinfo", json_ptr(cJSON_CreateObject()));
    return set_stored_record(world, capi::serverinfo, "serverinfo", args);
}

template <const capi::Record &kind>
Reply stored(World &world, const cJSON *) {
    return stored_record(world, kind, kind.name);
}

}  // namespace

std::span<const Row> system_rows() {
    static const std::array rows{
        Row{&call_of("qzcap_get_devinfo"), false, {}, stored<capi::devinfo>},
        Row{&call_of("qzcap_diagnostics_get"), false, {}, stored<capi::diagnostics>},
        Row{&call_of("qzcap_diagnostics_netstat"), false, {}, stored<capi::netstatinfo>},
        Row{&call_of("qzcap_get_terminalnum"), false, {}, stored<capi::terminalnum>},
        Row{&call_of("qzcap_get_led_switch"), false, {}, get_led},
        Row{&call_of("qzcap_set_led_switch"), true, {{Type::text, "status"}}, set_led},
        Row{&call_of("qzcap_set_iptv"), true, {{Type::record, "record", true, &capi::iptv}}, set_iptv},
        Row{&call_of("qzcap_set_workmode"), true, {{Type::text, "mode"}}, set_workmode},
        Row{&call_of("qzcap_reset"), true, {}, reset},
        Row{&call_of("qzcap_reboot"), true, {}, reboot},
        Row{&call_of("qzcap_upgrade"),
            false,
            {{Type::text, "url"}, {Type::number, "size"}, {Type::text, "chksum"}},
            upgrade},
        Row{&call_of("qzcap_get_serverinfo"), false, {}, stored<capi::serverinfo>},
        Row{&call_of("qzcap_set_serverinfo"),
            true,
            {{Type::record, "record", true, &capi::serverinfo}},
            set_serverinfo},
        Row{&call_of("qzcap_get_waninfo"), false, {}, stored<capi::waninfo>},
    };
    return rows;
}

}  // namespace arvok::qzcapd
