// "get_status": the table of the 37 items. An item that fails carries its error and spoils no other.

#include <strings.h>

#include "arvok_client/handlers.h"
#include "common/clock.h"
#include "context.h"

namespace arvok {
namespace {

struct item_row {
    const char *name;
    json_ptr (*get)();
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
json_ptr get_item(const char *name) {
    for (const item_row &item : items)
        if (strcasecmp(item.name, name) == 0)
            return item.get();
    return arvok_error_item(err_not_supported, "unrecognized request");
}

}  // namespace

int arvok_get_status(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    const cJSON *get = json_member(root, "get");
    if (!cJSON_IsArray(get)) {
        qzcap_printf("[ERROR] invalid get\n");
        return 0;
    }
    json_object status;
    for (const cJSON *element = get->child; element; element = element->next)
        if (const char *name = json_text(element, "name"))
            status.add(name, get_item(name));
    context.reply =
        reply_to(root, "status").number("errcode", ec->errcode).add("status", status.take()).take();
    return 1;
}

json_ptr get_online_time() {
    return json_ptr(cJSON_CreateString(std::to_string(_get_uptime()).c_str()));
}

json_ptr get_arvokstat() {
    return json_object().text("connectedGateway", ec->linked ? "yes" : "no").take();
}

json_ptr get_access_list() {
    return arvok_error_item(err_not_supported, "V2019.1.0 without this interface");
}

}  // namespace arvok
