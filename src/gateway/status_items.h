#pragma once
/// The items of a status reply: each its value, or the object with the error that it records.

#include "gateway/request.h"

namespace arvok::gateway {

json::value get_wifi(request &);
json::value get_wifitimer(request &);
json::value get_ledswitch(request &);
json::value get_wifiswitch(request &);
json::value get_wpsswitch(request &);
json::value get_syncswitch(request &);

// The device itself.
json::value get_bandsupport(request &);
json::value get_diaginfo(request &);
json::value get_cpurate(request &);
json::value get_cputemp(request &);
json::value get_memoryuserate(request &);
json::value get_flashusage(request &);
json::value get_flashfree(request &);
json::value get_flash_stat(request &);
json::value get_uploadspeed(request &);
json::value get_downloadspeed(request &);
json::value get_networktype(request &);
json::value get_waninfo(request &);
json::value get_terminal_num(request &);
json::value get_workmode(request &);
json::value get_web_server(request &);
json::value get_netstat_ports(request &);
json::value get_eth_wan_port_index(request &);
json::value get_eth_lan_port_index(request &);

// Radios, hosts, neighbourhood and mesh.
json::value get_wlanstats(request &);
json::value get_channel(request &);
json::value get_load(request &);
json::value get_real_devinfo(request &);
json::value get_neighborinfo(request &);
json::value get_channel_quality(request &);
json::value get_capability(request &);
json::value get_map_info(request &);
json::value get_map_topology(request &);

}  // namespace arvok::gateway
