// Status items about the device itself: diagnostics, ports, WAN, identity.

#include <cstdio>

#include "arvok_client/handlers.h"
#include "common/fields.h"
#include "context.h"

namespace arvok {
namespace {

json_ptr number_value(double n) {
    return json_ptr(cJSON_CreateNumber(n));
}
json_ptr text_value(const char *text) {
    return json_ptr(cJSON_CreateString(text_or_empty(text)));
}

// What `value` makes of a record that is refreshed first, or the error item.
template <typename Handle, typename Value>
json_ptr refreshed(int (*refresh)(), const Handle &record, const char *error, Value value) {
    if (refresh() != 0)
        return arvok_error_item(err_platform, "%s", error);
    return value(*record);
}

template <typename Value>
json_ptr of_device(Value value) {
    return refreshed(update_dev_info, g_ctx.devinfo, "qzcap_get_devinfo failed", value);
}

template <typename Value>
json_ptr of_diagnostics(Value value) {
    return refreshed(update_diag_info, g_ctx.diag, "qzcap_diagnostics_get failed", value);
}

template <typename Value>
json_ptr of_wan(Value value) {
    return refreshed(update_wan_info, g_ctx.waninfo, "qzcap_get_waninfo failed", value);
}

constexpr std::size_t percent_text_size = 8;  // what does not fit is cut, also for the gateway

json_ptr percent(std::uint32_t n) {
    char text[percent_text_size];
    std::snprintf(text, sizeof text, "%u%%", n);
    return text_value(text);
}

constexpr field<qzcap_diagnostics> diagnostics_fields[] = {
    {"cputemp", &qzcap_diagnostics::cputemp},         {"cpurate", &qzcap_diagnostics::cpurate},
    {"memoryusage", &qzcap_diagnostics::memoryusage}, {"flashusage", &qzcap_diagnostics::flashusage},
    {"flashfree", &qzcap_diagnostics::flashfree},
};

constexpr field<qzcap_diagnostics> flash_fields[] = {
    {"userate", &qzcap_diagnostics::flashusage},
    {"free", &qzcap_diagnostics::flashfree},
};

constexpr field<qzcap_waninfo> wan_fields[] = {
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

constexpr field<qzcap_devinfo> web_server_fields[] = {{"support", &qzcap_devinfo::support},
                                                      {"wepIp", &qzcap_devinfo::wepIp},
                                                      {"webUrl", &qzcap_devinfo::webUrl}};

constexpr field<qzcap_terminalnum> terminal_fields[] = {{"wiredNum", &qzcap_terminalnum::wired},
                                                        {"2.4GwirelessNum", &qzcap_terminalnum::wireless_2g},
                                                        {"5GwirelessNum", &qzcap_terminalnum::wireless_5g}};

// A zero-terminated list of numbers; null is an empty list.
json_ptr number_list(const std::uint32_t *numbers) {
    json_ptr array(cJSON_CreateArray());
    for (; numbers && *numbers; numbers++)
        json_append(array.get(), number_value(*numbers));
    return array;
}

json_ptr port_list(std::uint32_t *qzcap_devinfo::*ports, const char *missing) {
    return of_device([&](const qzcap_devinfo &device) {
        return device.*ports ? number_list(device.*ports) : arvok_error_item(err_platform, "%s", missing);
    });
}

}  // namespace

json_ptr get_bandsupport() {
    return of_device([](const qzcap_devinfo &device) {
        if (_strcmp(device.support_5g2, "yes") == 0)
            return json_texts({"2.4G", "5G-2", "5G"});
        if (_strcmp(device.support_5g, "yes") == 0)
            return json_texts({"2.4G", "5G"});
        return json_texts({"2.4G"});
    });
}

json_ptr get_diaginfo() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return object_of(d, diagnostics_fields); });
}
json_ptr get_cpurate() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return percent(d.cpurate); });
}
json_ptr get_memoryuserate() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return percent(d.memoryusage); });
}
json_ptr get_cputemp() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return number_value(d.cputemp); });
}
json_ptr get_flashusage() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return number_value(d.flashusage); });
}
json_ptr get_flashfree() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return number_value(d.flashfree); });
}
json_ptr get_flash_stat() {
    return of_diagnostics([](const qzcap_diagnostics &d) { return object_of(d, flash_fields); });
}

json_ptr get_uploadspeed() {
    return of_wan([](const qzcap_waninfo &wan) { return text_value(wan.uploadspeed); });
}
json_ptr get_downloadspeed() {
    return of_wan([](const qzcap_waninfo &wan) { return text_value(wan.downloadspeed); });
}
json_ptr get_networktype() {
    return of_wan([](const qzcap_waninfo &wan) { return text_value(wan.networktype); });
}
json_ptr get_waninfo() {
    return of_wan([](const qzcap_waninfo &wan) { return object_of(wan, wan_fields); });
}

json_ptr get_workmode() {
    return of_device([](const qzcap_devinfo &device) { return text_value(device.mode); });
}
json_ptr get_web_server() {
    return of_device([](const qzcap_devinfo &device) { return object_of(device, web_server_fields); });
}
json_ptr get_eth_wan_port_index() {
    return port_list(&qzcap_devinfo::wanports, "wanports is null");
}
json_ptr get_eth_lan_port_index() {
    return port_list(&qzcap_devinfo::lanports, "lanports is null");
}

json_ptr get_terminal_num() {
    const handle<qzcap_terminalnum, &qzcap_free_terminalnum> terminals(qzcap_get_terminalnum());
    if (!terminals)
        return arvok_error_item(err_platform, "qzcap_get_terminalnum failed");
    return object_of(*terminals, terminal_fields);
}

json_ptr get_netstat_ports() {
    const handle<qzcap_netstatinfo, &qzcap_free_netstatinfo> ports(qzcap_diagnostics_netstat());
    if (!ports)
        return arvok_error_item(err_platform, "qzcap_diagnostics_netstat failed");
    return json_object().add("tcp", number_list(ports->tcp)).add("udp", number_list(ports->udp)).take();
}

}  // namespace arvok
