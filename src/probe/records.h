#pragma once
/// The platform's records in the report: the members that the agent reports, under its names, and under the
/// platform's the others that it goes by; of keys and tokens only the length.

#include "platform/records.h"
#include "probe/report.h"

namespace arvok::probe {

void describe(item &to, const qzcap_devinfo &device);
void describe(item &to, const qzcap_diagnostics &load);
void describe(item &to, const qzcap_netstatinfo &ports);
void describe(item &to, const qzcap_terminalnum &terminals);
void describe(item &to, const qzcap_waninfo &wan);
void describe(item &to, const qzcap_laninfo &host);
void describe(item &to, const qzcap_mesh &mesh);
void describe(item &to, const qzcap_backhaulbss &backhaul);
void describe(item &to, const qzcap_roaming &roaming);
void describe(item &to, const qzcap_serverinfo &servers);
void describe(item &to, const qzcap_wifiinfo &radio);
void describe(item &to, const qzcap_wifi_switch &switches);
void describe(item &to, const qzcap_wifi_timer &timer);
void describe(item &to, const qzcap_neighbourinfo &heard);
void describe(item &to, const qzcap_channel_score &of);
void describe(item &to, const qzcap_wifi_ap &interface);
void describe(item &to, const qzcap_wifi_apstat &traffic);
void describe(item &to, const qzcap_app &app);

}  // namespace arvok::probe
