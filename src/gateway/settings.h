#pragma once
/// The settings of a "cfg" message. Each takes the value of its member in "set" and says what went wrong by
/// the error that it records. It checks the whole value before it changes anything, but for set_wifi and
/// set_wifitimer: what they applied before the element that is wrong or refused stays.

#include "gateway/request.h"

namespace arvok::gateway {

void set_wifi(request &, json::view value);
void set_wifitimer(request &, json::view value);
void set_ledswitch(request &, json::view value);
void set_wifiswitch(request &, json::view value);
void set_wpsswitch(request &, json::view value);
void set_syncswitch(request &, json::view value);
void set_upgrade(request &, json::view value);
void set_upgrade_client(request &, json::view value);
void set_ctrlcommand(request &, json::view value);
void set_roaming(request &, json::view value);
void set_mesh_roaming(request &, json::view value);
void set_blacklist(request &, json::view value);
void set_real_devinfo(request &, json::view value);
void set_map_role(request &, json::view value);
void set_iptv(request &, json::view value);
void set_speedlimit(request &, json::view value);

}  // namespace arvok::gateway
