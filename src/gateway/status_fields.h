#pragma once
/// The members that platform records are reported with, in the order on the wire: shared by the status items
/// and by the probe.

#include <cstddef>

#include "base/fields.h"
#include "platform/records.h"

namespace arvok::gateway {

inline constexpr field<qzcap_diagnostics> diagnostics_fields[] = {
    {"cputemp", &qzcap_diagnostics::cputemp},         {"cpurate", &qzcap_diagnostics::cpurate},
    {"memoryusage", &qzcap_diagnostics::memoryusage}, {"flashusage", &qzcap_diagnostics::flashusage},
    {"flashfree", &qzcap_diagnostics::flashfree},
};

inline constexpr field<qzcap_waninfo> wan_fields[] = {
    {"ipaddr", &qzcap_waninfo::ipaddr},
    {"subnetmask", &qzcap_waninfo::subnetmask},
    {"gateway", &qzcap_waninfo::gateway},
    {"dns1", &qzcap_waninfo::dns1},
    {"dns2", &qzcap_waninfo::dns2},
    {"status", &qzcap_waninfo::status},
    {"ipaddr6", &qzcap_waninfo::ipaddr6},
    {"prefix6", &qzcap_waninfo::prefix6},
    {"prefixlen6", &qzcap_waninfo::prefixlen6},
    {"gateway6", &qzcap_waninfo::gateway6},
    {"dns61", &qzcap_waninfo::dns61},
    {"dns62", &qzcap_waninfo::dns62},
    {"status6", &qzcap_waninfo::status6},
    {"negorate", &qzcap_waninfo::negorate},
    {"duplexmode", &qzcap_waninfo::duplexmode},
    {"bytessent", &qzcap_waninfo::bytessent},
    {"bytesreceived", &qzcap_waninfo::bytesreceived},
    {"packetssent", &qzcap_waninfo::packetssent},
    {"packetsreceived", &qzcap_waninfo::packetsreceived},
    {"crcerror", &qzcap_waninfo::crcerror},
    {"uploadspeed", &qzcap_waninfo::uploadspeed},
    {"downloadspeed", &qzcap_waninfo::downloadspeed},
    {"onlinetime", &qzcap_waninfo::onlinetime},
    {"networktype", &qzcap_waninfo::networktype},
};

inline constexpr field<qzcap_devinfo> web_server_fields[] = {{"support", &qzcap_devinfo::support},
                                                             {"wepIp", &qzcap_devinfo::wepIp},
                                                             {"webUrl", &qzcap_devinfo::webUrl}};

inline constexpr field<qzcap_terminalnum> terminal_fields[] = {
    {"wiredNum", &qzcap_terminalnum::wired},
    {"2.4GwirelessNum", &qzcap_terminalnum::wireless_2g},
    {"5GwirelessNum", &qzcap_terminalnum::wireless_5g}};

inline constexpr field<qzcap_wifi_apstat> traffic_fields[] = {
    {"totalBytesSent", decimal{&qzcap_wifi_apstat::bytessent}},
    {"totalBytesReceived", decimal{&qzcap_wifi_apstat::bytesreceived}},
    {"totalPacketsSent", decimal{&qzcap_wifi_apstat::packetssent}},
    {"totalPacketsReceived", decimal{&qzcap_wifi_apstat::packetsreceived}},
    {"errorsSent", &qzcap_wifi_apstat::errorssent},
    {"errorsReceived", &qzcap_wifi_apstat::errorsreceived},
    {"discardPacketsSent", &qzcap_wifi_apstat::discardsent},
    {"discardPacketsReceived", &qzcap_wifi_apstat::discardreceived},
};

/// A host's "ssid" is cut there, and "negorate" is in Mbit/s: between the two tables.
inline constexpr std::size_t host_ssid_max = 63;
inline constexpr field<qzcap_laninfo> host_fields_before_ssid[] = {
    {"mac", &qzcap_laninfo::mac},
    {"vmac", &qzcap_laninfo::vmac},
    {"hostname", &qzcap_laninfo::hostname},
    {"onlineTime", printed<qzcap_laninfo, std::uint32_t>{&qzcap_laninfo::onlinetime}},
    {"uploadspeed", &qzcap_laninfo::uploadspeed},
    {"downloadspeed", &qzcap_laninfo::downloadspeed},
    {"connecttype", &qzcap_laninfo::connecttype},
    {"band", &qzcap_laninfo::band},
    {"rssi", printed<qzcap_laninfo, std::int32_t>{&qzcap_laninfo::rssi}},
    {"ipaddr", &qzcap_laninfo::ipaddr},
    {"port", &qzcap_laninfo::port},
};

inline constexpr field<qzcap_laninfo> host_fields_behind_rate[] = {
    {"duplexmode", &qzcap_laninfo::duplexmode},
    {"bytessent", decimal{&qzcap_laninfo::bytessent}},
    {"bytesreceived", decimal{&qzcap_laninfo::bytesreceived}},
    {"packetssent", decimal{&qzcap_laninfo::packetssent}},
    {"packetsreceived", decimal{&qzcap_laninfo::packetsreceived}},
    {"crcerror", &qzcap_laninfo::crcerror},
    {"ipaddr6", &qzcap_laninfo::ipaddr6},
    {"internetaccess", &qzcap_laninfo::internetaccess},
    {"storageaccess", &qzcap_laninfo::storageaccess},
    {"active", &qzcap_laninfo::active},
    {"activetime", &qzcap_laninfo::activetime},
    {"inactivetime", &qzcap_laninfo::inactivetime},
    {"brand", &qzcap_laninfo::brand},
    {"model", &qzcap_laninfo::model},
};

/// Behind "apidx", which counts from 0.
inline constexpr field<qzcap_wifi_ap> interface_fields[] = {
    {"enable", &qzcap_wifi_ap::enable}, {"ssid", &qzcap_wifi_ap::ssid}, {"bssid", &qzcap_wifi_ap::bssid},
    {"key", &qzcap_wifi_ap::key},       {"auth", &qzcap_wifi_ap::auth}, {"encrypt", &qzcap_wifi_ap::encrypt},
};

}  // namespace arvok::gateway
