// "get_status": the table of the 37 items. An item that fails carries its error and spoils no other.

#include "base/clock.h"
#include "base/log.h"
#include "base/text.h"
#include "gateway/handlers.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

json::value get_online_time(request &) {
    return json::text(std::to_string(uptime()));
}

json::value get_arvokstat(request &r) {
    return json::object().text("connectedGateway", r.services.link.linked ? "yes" : "no").take();
}

json::value get_access_list(request &r) {
    return r.error_item(not_supported, "V2019.1.0 without this interface");
}

struct item_row {
    std::string_view name;
    json::value (*get)(request &);
};

constexpr item_row items[] = {
    {"wifi", get_wifi},
    {"wifitimer", get_wifitimer},
    {"ledswitch", get_ledswitch},
    {"wifiswitch", get_wifiswitch},
    {"wpsswitch", get_wpsswitch},
    {"syncswitch", get_syncswitch},
    {"bandsupport", get_bandsupport},
    {"diaginfo", get_diaginfo},
    {"cpurate", get_cpurate},
    {"cputemp", get_cputemp},
    {"memoryuserate", get_memoryuserate},
    {"flashusage", get_flashusage},
    {"flashfree", get_flashfree},
    {"uploadspeed", get_uploadspeed},
    {"downloadspeed", get_downloadspeed},
    {"wlanstats", get_wlanstats},
    {"channel", get_channel},
    {"onlineTime", get_online_time},
    {"terminalNum", get_terminal_num},
    {"load", get_load},
    {"real_devinfo", get_real_devinfo},
    {"arvokstat", get_arvokstat},
    {"neighborinfo", get_neighborinfo},
    {"networktype", get_networktype},
    {"workmode", get_workmode},
    {"webServer", get_web_server},
    {"netstatPorts", get_netstat_ports},
    {"flashStat", get_flash_stat},
    {"mapInfo", get_map_info},
    {"mapTopology", get_map_topology},
    {"ethWanPortIndex", get_eth_wan_port_index},
    {"ethLanPortIndex", get_eth_lan_port_index},
    {"channelQuality", get_channel_quality},
    {"capability", get_capability},
    {"blacklist", get_access_list},
    {"whitelist", get_access_list},
    {"waninfo", get_waninfo},
};

// The one table whose names match in either case.
json::value get_item(request &r, std::string_view name) {
    for (const item_row &item : items)
        if (same_ignoring_case(item.name, name))
            return item.get(r);
    return r.error_item(not_supported, "unrecognized request");
}

}  // namespace

bool handle_get_status(request &r) {
    if (!r.has_envelope())
        return false;
    const json::view get = r.root["get"];
    if (!get.is_array()) {
        log_printf("[ERROR] invalid get\n");
        return false;
    }
    json::object status;
    for (const json::view element : get)
        if (const std::optional<std::string_view> name = element["name"].text())
            status.add(*name, get_item(r, *name));
    r.reply = r.reply_of("status").number("errcode", r.errcode()).add("status", status.take()).take();
    return true;
}

}  // namespace arvok::gateway
