#include <type_traits>

#include "qzcap.h"
#include "record.h"

namespace arvok::capi {
namespace {

/// The type of a field follows from its member, so that table and struct cannot disagree.
template <typename Member>
constexpr FieldType type_of() {
    if constexpr (std::is_same_v<Member, char *>) {
        return FieldType::text;
    } else if constexpr (std::is_same_v<Member, std::uint32_t>) {
        return FieldType::u32;
    } else if constexpr (std::is_same_v<Member, std::int32_t>) {
        return FieldType::i32;
    } else if constexpr (std::is_same_v<Member, std::uint32_t *>) {
        return FieldType::numbers;
    } else if constexpr (std::is_same_v<Member, char **>) {
        return FieldType::texts;
    } else {
        static_assert(std::is_same_v<Member, unsigned char *>, "a member of no known type");
        return FieldType::bytes;
    }
}

template <typename Member>
constexpr Field field(const char *name, bool settable, std::size_t offset, std::size_t size_offset = 0) {
    return {name, type_of<Member>(), settable, offset, size_offset};
}

#define FIELD(kind, member, settable) \
    field<decltype(qzcap_##kind::member)>(#member, settable, offsetof(qzcap_##kind, member))
#define COUNTED(kind, member, size, settable)                                                \
    field<decltype(qzcap_##kind::member)>(#member, settable, offsetof(qzcap_##kind, member), \
                                          offsetof(qzcap_##kind, size))
#define RO(kind, member) FIELD(kind, member, false)
#define RW(kind, member) FIELD(kind, member, true)

constexpr Field app_fields[] = {RO(app, name), RO(app, version), RO(app, state)};

constexpr Field backhaulbss_fields[] = {RO(backhaulbss, encrypt), RO(backhaulbss, auth), RO(backhaulbss, key),
                                        RO(backhaulbss, ssid)};

constexpr Field bsstransition_fields[] = {RW(bsstransition, mac), RW(bsstransition, bssid),
                                          RW(bsstransition, channel), RW(bsstransition, timeout)};

constexpr Field channel_score_fields[] = {RO(channel_score, channel), RO(channel_score, score)};

constexpr Field devinfo_fields[] = {
    RO(devinfo, mac),         RO(devinfo, vendor),      RO(devinfo, model),       RO(devinfo, swversion),
    RO(devinfo, hdversion),   RO(devinfo, sn),          RO(devinfo, url),         RO(devinfo, lan_source),
    RO(devinfo, wireless),    RO(devinfo, support_5g),  RO(devinfo, support_5g2), RO(devinfo, mode),
    RO(devinfo, supportMesh), RO(devinfo, QZEI),        RO(devinfo, lanports),    RO(devinfo, wanports),
    RO(devinfo, devtype),     RO(devinfo, description), RO(devinfo, support),     RO(devinfo, wepIp),
    RO(devinfo, webUrl)};

constexpr Field diagnostics_fields[] = {RO(diagnostics, cputemp), RO(diagnostics, cpurate),
                                        RO(diagnostics, memoryusage), RO(diagnostics, flashusage),
                                        RO(diagnostics, flashfree)};

constexpr Field iptv_fields[] = {RW(iptv, enable), RW(iptv, vlan), RW(iptv, ports)};

constexpr Field laninfo_fields[] = {RO(laninfo, index),
                                    RO(laninfo, mac),
                                    RO(laninfo, vmac),
                                    RW(laninfo, hostname),
                                    RW(laninfo, devname),
                                    RO(laninfo, uploadspeed),
                                    RO(laninfo, downloadspeed),
                                    RO(laninfo, onlinetime),
                                    RO(laninfo, connecttype),
                                    RO(laninfo, ipaddr),
                                    RO(laninfo, port),
                                    RO(laninfo, negorate),
                                    RO(laninfo, duplexmode),
                                    RO(laninfo, bytessent),
                                    RO(laninfo, bytesreceived),
                                    RO(laninfo, packetssent),
                                    RO(laninfo, packetsreceived),
                                    RO(laninfo, crcerror),
                                    RO(laninfo, band),
                                    RO(laninfo, rssi),
                                    RO(laninfo, ipaddr6),
                                    RW(laninfo, internetaccess),
                                    RW(laninfo, storageaccess),
                                    RO(laninfo, active),
                                    RO(laninfo, activetime),
                                    RO(laninfo, inactivetime),
                                    RW(laninfo, brand),
                                    RW(laninfo, model),
                                    RW(laninfo, downlimit),
                                    RW(laninfo, uplimit)};

constexpr Field mesh_fields[] = {RO(mesh, role), RO(mesh, almac), RO(mesh, onlinetime)};

constexpr Field neighbourinfo_fields[] = {RO(neighbourinfo, rfband),    RO(neighbourinfo, ssidname),
                                          RO(neighbourinfo, bssid),     RO(neighbourinfo, networktype),
                                          RO(neighbourinfo, channel),   RO(neighbourinfo, rssi),
                                          RO(neighbourinfo, bandwidth), RO(neighbourinfo, standard)};

constexpr Field netstatinfo_fields[] = {RO(netstatinfo, tcp), RO(netstatinfo, udp)};

constexpr Field roaming_fields[] = {RW(roaming, enable), RW(roaming, rssi_2g), RW(roaming, rssi_5g),
                                    RW(roaming, difference), RW(roaming, interval)};

constexpr Field rssi_query_fields[] = {RW(rssi_query, mac), RW(rssi_query, band), RW(rssi_query, channel),
                                       RW(rssi_query, duration)};

constexpr Field serverinfo_fields[] = {RW(serverinfo, bss), RW(serverinfo, abi), RW(serverinfo, devtoken),
                                       RW(serverinfo, devid), COUNTED(serverinfo, abi_list, abi_count, true)};

constexpr Field terminalnum_fields[] = {RO(terminalnum, wired), RO(terminalnum, wireless_2g),
                                        RO(terminalnum, wireless_5g)};

constexpr Field vsie_beacontx_fields[] = {RW(vsie_beacontx, name), RW(vsie_beacontx, flag),
                                          RW(vsie_beacontx, lifetime),
                                          COUNTED(vsie_beacontx, data, length, true)};

constexpr Field vsie_proberesp_fields[] = {RW(vsie_proberesp, mac), RW(vsie_proberesp, flag),
                                           COUNTED(vsie_proberesp, data, length, true)};

constexpr Field waninfo_fields[] = {RO(waninfo, networktype),   RO(waninfo, ipaddr),
                                    RO(waninfo, subnetmask),    RO(waninfo, gateway),
                                    RO(waninfo, dns1),          RO(waninfo, dns2),
                                    RO(waninfo, pppoe_user),    RO(waninfo, status),
                                    RO(waninfo, negorate),      RO(waninfo, duplexmode),
                                    RO(waninfo, bytessent),     RO(waninfo, bytesreceived),
                                    RO(waninfo, packetssent),   RO(waninfo, packetsreceived),
                                    RO(waninfo, crcerror),      RO(waninfo, uploadspeed),
                                    RO(waninfo, downloadspeed), RO(waninfo, onlinetime),
                                    RO(waninfo, status6),       RO(waninfo, ipaddr6),
                                    RO(waninfo, prefix6),       RO(waninfo, prefixlen6),
                                    RO(waninfo, gateway6),      RO(waninfo, dns61),
                                    RO(waninfo, dns62)};

constexpr Field wifi_ap_fields[] = {
    RO(wifi_ap, index), RW(wifi_ap, hidden), RW(wifi_ap, encrypt), RW(wifi_ap, auth),  RW(wifi_ap, key),
    RW(wifi_ap, ssid),  RW(wifi_ap, enable), RO(wifi_ap, bssid),   RO(wifi_ap, inuse), RW(wifi_ap, guest)};

constexpr Field wifi_apstat_fields[] = {RO(wifi_apstat, bytessent),      RO(wifi_apstat, bytesreceived),
                                        RO(wifi_apstat, packetssent),    RO(wifi_apstat, packetsreceived),
                                        RO(wifi_apstat, errorsreceived), RO(wifi_apstat, errorssent),
                                        RO(wifi_apstat, discardsent),    RO(wifi_apstat, discardreceived)};

constexpr Field wifi_switch_fields[] = {RW(wifi_switch, wifiswitch), RW(wifi_switch, wpsswitch),
                                        RW(wifi_switch, arvoksync)};

constexpr Field wifi_timer_fields[] = {RO(wifi_timer, id), RW(wifi_timer, weekday), RW(wifi_timer, time),
                                       RW(wifi_timer, enable)};

constexpr Field wifiinfo_fields[] = {RW(wifiinfo, enable),
                                     RW(wifiinfo, channel),
                                     RO(wifiinfo, current_channel),
                                     RW(wifiinfo, txpower),
                                     RO(wifiinfo, load),
                                     RW(wifiinfo, bandwidth),
                                     RW(wifiinfo, wifimode),
                                     RO(wifiinfo, supported_modes),
                                     RO(wifiinfo, supported_auth)};

}  // namespace

#define RECORD(kind)                               \
    const Record kind {                            \
#kind, sizeof(qzcap_##kind), kind##_fields \
    }

RECORD(app);
RECORD(backhaulbss);
RECORD(bsstransition);
RECORD(channel_score);
RECORD(devinfo);
RECORD(diagnostics);
RECORD(iptv);
RECORD(laninfo);
RECORD(mesh);
RECORD(neighbourinfo);
RECORD(netstatinfo);
RECORD(roaming);
RECORD(rssi_query);
RECORD(serverinfo);
RECORD(terminalnum);
RECORD(vsie_beacontx);
RECORD(vsie_proberesp);
RECORD(waninfo);
RECORD(wifi_ap);
RECORD(wifi_apstat);
RECORD(wifi_switch);
RECORD(wifi_timer);
RECORD(wifiinfo);

}  // namespace arvok::capi
