#pragma once
/// The items of a status reply. Each writes its value and says true; or records its error and says false:
/// what it has written is then taken back.

#include "gateway/request.h"

namespace arvok::gateway {

bool get_wifi(request &, json::writer &item);
bool get_wifitimer(request &, json::writer &item);
bool get_ledswitch(request &, json::writer &item);
bool get_wifiswitch(request &, json::writer &item);
bool get_wpsswitch(request &, json::writer &item);
bool get_syncswitch(request &, json::writer &item);

// The device itself.
bool get_bandsupport(request &, json::writer &item);
bool get_diaginfo(request &, json::writer &item);
bool get_cpurate(request &, json::writer &item);
bool get_cputemp(request &, json::writer &item);
bool get_memoryuserate(request &, json::writer &item);
bool get_flashusage(request &, json::writer &item);
bool get_flashfree(request &, json::writer &item);
bool get_flash_stat(request &, json::writer &item);
bool get_uploadspeed(request &, json::writer &item);
bool get_downloadspeed(request &, json::writer &item);
bool get_networktype(request &, json::writer &item);
bool get_waninfo(request &, json::writer &item);
bool get_terminal_num(request &, json::writer &item);
bool get_workmode(request &, json::writer &item);
bool get_web_server(request &, json::writer &item);
bool get_netstat_ports(request &, json::writer &item);
bool get_eth_wan_port_index(request &, json::writer &item);
bool get_eth_lan_port_index(request &, json::writer &item);

// Radios, hosts, neighbourhood and mesh.
bool get_wlanstats(request &, json::writer &item);
bool get_channel(request &, json::writer &item);
bool get_load(request &, json::writer &item);
bool get_real_devinfo(request &, json::writer &item);
bool get_neighborinfo(request &, json::writer &item);
bool get_channel_quality(request &, json::writer &item);
bool get_capability(request &, json::writer &item);
bool get_map_info(request &, json::writer &item);
bool get_map_topology(request &, json::writer &item);

}  // namespace arvok::gateway
