#pragma once
/// What the request handlers of the gateway link share: envelope, replies, the tables' rows.

#include <cstdint>

#include "arvok/device_info.h"
#include "arvok_client/arvok_client.h"

namespace arvok {

// --- handlers of the type table; 0: not consumed ---

int arvok_cfg(const cJSON *root, reply_context &context);
int arvok_get_status(const cJSON *root, reply_context &context);
int arvok_control(const cJSON *root, reply_context &context);
int arvok_deassociation(const cJSON *root, reply_context &context);
int arvok_getrssiinfo(const cJSON *root, reply_context &context);
int arvok_qlink(const cJSON *root, reply_context &context);
int arvok_startaprssiquery(const cJSON *root, reply_context &context);
int arvok_startstabsstransitionrequest(const cJSON *root, reply_context &context);
int arvok_ubus_call(const cJSON *root, reply_context &context);
int arvok_ubus_subscribe(const cJSON *root, reply_context &context);

// --- envelope ---

/// Whether a request from the gateway has a numeric "sequence" and a text "mac"; says in the log what it
/// lacks. Requests through the cloud have no envelope and always pass.
bool valid_envelope(const cJSON *root, const reply_context &context);

/// A reply with its envelope: "type", the request's "sequence" (0 when it is no number) and the device's
/// "mac".
json_object reply_to(const cJSON *root, const char *type);

/// {"type":"ack", ..., "errcode", "errmsg"}: the last error recorded while the message was handled.
json_ptr ack_reply(const cJSON *root);

/// Records that a platform call failed, with the reason that it gave (may be null), which is then released.
void arvok_set_platform_error(const char *call, char *reason);

// --- configuration rows: a setter reports failure only through arvok_set_error ---

void set_wifi(const cJSON *value);
void set_wifitimer(const cJSON *value);
void set_ledswitch(const cJSON *value);
void set_wifiswitch(const cJSON *value);
void set_wpsswitch(const cJSON *value);
void set_syncswitch(const cJSON *value);
void set_upgrade(const cJSON *value);
void set_upgrade_client(const cJSON *value);
void set_ctrlcommand(const cJSON *value);
void set_roaming_set(const cJSON *value);
void set_map_roaming_set(const cJSON *value);
void set_blacklist(const cJSON *value);
void set_real_devinfo(const cJSON *value);
void set_map_role(const cJSON *value);
void set_iptv(const cJSON *value);
void set_speedlimit(const cJSON *value);
void set_eventsub(const cJSON *value);

/// Disconnects the stations of "mac", a text or an array of texts: both a command and a message of its own.
void deassociate(const cJSON *element);

// --- status items: each getter returns a new value, the error item when it fails ---

json_ptr get_wifi();
json_ptr get_wifitimer();
json_ptr get_ledswitch();
json_ptr get_wifiswitch();
json_ptr get_wpsswitch();
json_ptr get_syncswitch();
json_ptr get_bandsupport();
json_ptr get_diaginfo();
json_ptr get_cpurate();
json_ptr get_cputemp();
json_ptr get_memoryuserate();
json_ptr get_flashusage();
json_ptr get_flashfree();
json_ptr get_flash_stat();
json_ptr get_uploadspeed();
json_ptr get_downloadspeed();
json_ptr get_networktype();
json_ptr get_waninfo();
json_ptr get_wlanstats();
json_ptr get_channel();
json_ptr get_load();
json_ptr get_online_time();
json_ptr get_terminal_num();
json_ptr get_real_devinfo();
json_ptr get_arvokstat();
json_ptr get_neighborinfo();
json_ptr get_workmode();
json_ptr get_web_server();
json_ptr get_netstat_ports();
json_ptr get_map_info();
json_ptr get_map_topology();
json_ptr get_eth_wan_port_index();
json_ptr get_eth_lan_port_index();
json_ptr get_channel_quality();
json_ptr get_capability();
json_ptr get_access_list();

/// The object of a mesh record for "mapInfo" and the mesh report: "mapRole", "mapAlmac" and, for a
/// controller, "backhaulBSS" are added to `object`. Null, or the text that says which platform
/// call failed.
const char *add_map_info(json_object &object);

}  // namespace arvok
