/// The platform's calls: which bus method of which object carries each library function.
///
/// The library finds a function's row here to make the call, and the emulated daemon to answer, journal or
/// fail it. Object and method together name one function only.
///
/// Every answer is a table with `result`: 0, or negative beside a text `failreason`. A record comes as
/// `record`, a list as `list` (array of tables), a text as `text`, a number (an index that the platform
/// chose) as `value`.
#ifndef ARVOK_CAPI_CALLS_H
#define ARVOK_CAPI_CALLS_H

#include <string_view>

namespace arvok::capi {

struct Call {
    const char *function;
    const char *object;
    const char *method;
};

inline constexpr Call calls[] = {
    {"qzcap_get_devinfo", "qzcapd.system", "devinfo"},
    {"qzcap_diagnostics_get", "qzcapd.system", "diagnostics"},
    {"qzcap_diagnostics_netstat", "qzcapd.system", "netstat"},
    {"qzcap_get_terminalnum", "qzcapd.system", "terminalnum"},
    {"qzcap_get_led_switch", "qzcapd.system", "get_led"},
    {"qzcap_set_led_switch", "qzcapd.system", "set_led"},
    {"qzcap_set_iptv", "qzcapd.system", "set_iptv"},
    {"qzcap_set_workmode", "qzcapd.system", "set_workmode"},
    {"qzcap_reset", "qzcapd.system", "reset"},
    {"qzcap_reboot", "qzcapd.system", "reboot"},
    {"qzcap_upgrade", "qzcapd.system", "upgrade"},
    {"qzcap_get_serverinfo", "qzcapd.system", "get_serverinfo"},
    {"qzcap_set_serverinfo", "qzcapd.system", "set_serverinfo"},

    {"qzcap_get_waninfo", "qzcapd.wan", "get"},

    {"qzcap_list_laninfo", "qzcapd.laninfo", "list"},
    {"qzcap_set_laninfo", "qzcapd.laninfo", "set"},
    {"qzcap_set_blacklist", "qzcapd.laninfo", "set_blacklist"},

    {"qzcap_get_wifi_switch", "qzcapd.wifi", "get"},
    {"qzcap_set_wifi_switch", "qzcapd.wifi", "set"},  // not in the library: callers use the bus for this one
    {"qzcap_get_wifiinfo", "qzcapd.wifi", "get_radio"},
    {"qzcap_set_wifiinfo_async", "qzcapd.wifi", "set_radio"},
    {"qzcap_wifi_ap_list", "qzcapd.wifi", "ap_list"},
    {"qzcap_wifi_ap_get", "qzcapd.wifi", "ap_get"},
    {"qzcap_wifi_ap_set", "qzcapd.wifi", "ap_set"},
    {"qzcap_wifi_ap_set_async", "qzcapd.wifi", "ap_set_async"},
    {"qzcap_wifi_ap_add", "qzcapd.wifi", "ap_add"},
    {"qzcap_wifi_ap_delete", "qzcapd.wifi", "ap_delete"},
    {"qzcap_wifi_ap_stats", "qzcapd.wifi", "ap_stats"},
    {"qzcap_wifi_timer_list", "qzcapd.wifi", "timer_list"},
    {"qzcap_wifi_timer_add", "qzcapd.wifi", "timer_add"},
    {"qzcap_wifi_timer_set", "qzcapd.wifi", "timer_set"},
    {"qzcap_wifi_timer_delete", "qzcapd.wifi", "timer_delete"},
    {"qzcap_get_neighbourinfo", "qzcapd.wifi", "neighbours"},
    {"qzcap_get_channel_score", "qzcapd.wifi", "channel_scores"},
    {"qzcap_wifi_channelscan", "qzcapd.wifi", "channelscan"},
    {"qzcap_wifi_deassociation", "qzcapd.wifi", "deassociation"},

    {"qzcap_get_mesh", "qzcapd.mesh", "get"},
    {"qzcap_mesh_backhaulbss", "qzcapd.mesh", "backhaulbss"},
    {"qzcap_mesh_topo", "qzcapd.mesh", "topo"},
    {"qzcap_set_mesh_role", "qzcapd.mesh", "set_role"},
    {"qzcap_get_mesh_roaming", "qzcapd.mesh", "get_roaming"},
    {"qzcap_set_mesh_roaming", "qzcapd.mesh", "set_roaming"},

    {"qzcap_get_roaming", "qzcapd.roaming", "get"},
    {"qzcap_set_roaming", "qzcapd.roaming", "set"},
    {"qzcap_start_rssi_query", "qzcapd.roaming", "rssi_query"},
    {"qzcap_bss_transition", "qzcapd.roaming", "bss_transition"},

    {"qzcap_add_vsie_beacontx", "qzcapd.vsie", "add_beacontx"},
    {"qzcap_vsie_beacontx_action", "qzcapd.vsie", "beacontx_action"},
    {"qzcap_delete_vsie_beacontx_by_name", "qzcapd.vsie", "delete_beacontx"},
    {"qzcap_add_vsie_proberesp", "qzcapd.vsie", "add_proberesp"},

    {"qzcap_install_app", "qzcapd.appmgt", "install"},
    {"qzcap_uninstall_app", "qzcapd.appmgt", "uninstall"},
    {"qzcap_run_app", "qzcapd.appmgt", "run"},
    {"qzcap_stop_app", "qzcapd.appmgt", "stop"},
    {"qzcap_restore_app", "qzcapd.appmgt", "restore"},
    {"qzcap_get_applist", "qzcapd.appmgt", "list"},
    {"qzcap_app_postmsg", "qzcapd.appmgt", "postmsg"},
};

/// The row of a function, found while compiling; a name without a row does not compile.
consteval const Call &call_of(std::string_view function) {
    for (const Call &call : calls) {
        if (function == call.function) {
            return call;
        }
    }
    return calls[sizeof(calls) / sizeof(calls[0])];  // out of bounds: not a constant
}

/// A platform object with a number (enum qzcap_object in qzcap.h).
struct NumberedObject {
    int number;
    const char *name;
};

inline constexpr NumberedObject numbered_objects[] = {
    {5, "qzcapd.laninfo"}, {6, "qzcapd.wan"},      {7, "qzcapd.wifi"},
    {15, "qzcapd.mesh"},   {16, "qzcapd.roaming"}, {30, "qzcapd.vsie"},
};

/// What the app manager's object notifies at the end of an installation: {"id": the value that the call was
/// answered with, "outcome": a table}.
inline constexpr char installed_notification[] = "installed";

}  // namespace arvok::capi

#endif
