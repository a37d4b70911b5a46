// Status items about the device itself: diagnostics, ports, WAN, identity.

#include "base/fields.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

json::value text_value(const char *text) {
    return json::text(view_of(text));
}

// What `value` makes of a record that is made current first, or the error item.
template <typename Value>
json::value of_device(request &r, Value value) {
    if (!r.services.cache.refresh_device())
        return r.error_item(platform_failed, "qzcap_get_devinfo failed");
    return value(r.services.cache.device());
}

template <typename Value>
json::value of_diagnostics(request &r, Value value) {
    if (!r.services.cache.refresh_diagnostics())
        return r.error_item(platform_failed, "qzcap_diagnostics_get failed");
    return value(r.services.cache.diagnostics());
}

template <typename Value>
json::value of_wan(request &r, Value value) {
    if (!r.services.cache.refresh_wan())
        return r.error_item(platform_failed, "qzcap_get_waninfo failed");
    return value(*r.services.cache.wan());
}

constexpr std::size_t percent_text_max = 7;  // what does not fit is cut, also for the gateway

json::value percent(std::uint32_t n) {
    return json::text(cut(format("%u%%", n), percent_text_max));
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
json::value number_list(const std::uint32_t *numbers) {
    json::array array;
    for (; numbers && *numbers; numbers++)
        array.add(json::number(*numbers));
    return array.take();
}

json::value port_list(request &r, std::uint32_t *qzcap_devinfo::*ports, const char *missing) {
    return of_device(r, [&](const qzcap_devinfo &device) {
        return device.*ports ? number_list(device.*ports) : r.error_item(platform_failed, "%s", missing);
    });
}

}  // namespace

json::value get_bandsupport(request &r) {
    return of_device(r, [](const qzcap_devinfo &device) {
        const bool second = view_of(device.support_5g2) == "yes";
        json::array words;
        words.add(json::text("2.4G"));
        if (second)
            words.add(json::text("5G-2"));
        if (second || view_of(device.support_5g) == "yes")
            words.add(json::text("5G"));
        return words.take();
    });
}

json::value get_diaginfo(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return object_of(d, diagnostics_fields); });
}
json::value get_cpurate(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return percent(d.cpurate); });
}
json::value get_memoryuserate(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return percent(d.memoryusage); });
}
json::value get_cputemp(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return json::number(d.cputemp); });
}
json::value get_flashusage(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return json::number(d.flashusage); });
}
json::value get_flashfree(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return json::number(d.flashfree); });
}
json::value get_flash_stat(request &r) {
    return of_diagnostics(r, [](const qzcap_diagnostics &d) { return object_of(d, flash_fields); });
}

json::value get_uploadspeed(request &r) {
    return of_wan(r, [](const qzcap_waninfo &wan) { return text_value(wan.uploadspeed); });
}
json::value get_downloadspeed(request &r) {
    return of_wan(r, [](const qzcap_waninfo &wan) { return text_value(wan.downloadspeed); });
}
json::value get_networktype(request &r) {
    return of_wan(r, [](const qzcap_waninfo &wan) { return text_value(wan.networktype); });
}
json::value get_waninfo(request &r) {
    return of_wan(r, [](const qzcap_waninfo &wan) { return object_of(wan, wan_fields); });
}

json::value get_workmode(request &r) {
    return of_device(r, [](const qzcap_devinfo &device) { return text_value(device.mode); });
}
json::value get_web_server(request &r) {
    return of_device(r, [](const qzcap_devinfo &device) { return object_of(device, web_server_fields); });
}
json::value get_eth_wan_port_index(request &r) {
    return port_list(r, &qzcap_devinfo::wanports, "wanports is null");
}
json::value get_eth_lan_port_index(request &r) {
    return port_list(r, &qzcap_devinfo::lanports, "lanports is null");
}

json::value get_terminal_num(request &r) {
    const handle<qzcap_terminalnum, &qzcap_free_terminalnum> terminals(platform::call(qzcap_get_terminalnum));
    if (!terminals)
        return r.error_item(platform_failed, "qzcap_get_terminalnum failed");
    return object_of(*terminals, terminal_fields);
}

json::value get_netstat_ports(request &r) {
    const handle<qzcap_netstatinfo, &qzcap_free_netstatinfo> ports(platform::call(qzcap_diagnostics_netstat));
    if (!ports)
        return r.error_item(platform_failed, "qzcap_diagnostics_netstat failed");
    return json::object().add("tcp", number_list(ports->tcp)).add("udp", number_list(ports->udp)).take();
}

}  // namespace arvok::gateway
