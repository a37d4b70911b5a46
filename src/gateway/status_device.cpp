// Status items about the device itself: diagnostics, ports, WAN, identity.

#include "gateway/status_fields.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

// Has `write` make the item of a record that is made current first.
template <typename Write>
bool of_device(request &r, Write write) {
    if (!r.services.cache.refresh_device())
        return r.fail_item(platform_failed, "qzcap_get_devinfo failed");
    write(r.services.cache.device());
    return true;
}

template <typename Write>
bool of_diagnostics(request &r, Write write) {
    if (!r.services.cache.refresh_diagnostics())
        return r.fail_item(platform_failed, "qzcap_diagnostics_get failed");
    write(r.services.cache.diagnostics());
    return true;
}

template <typename Write>
bool of_wan(request &r, Write write) {
    if (!r.services.cache.refresh_wan())
        return r.fail_item(platform_failed, "qzcap_get_waninfo failed");
    write(*r.services.cache.wan());
    return true;
}

constexpr std::size_t percent_text_max = 7;  // what does not fit is cut, also for the gateway

void add_percent(json::writer &item, std::uint32_t n) {
    item.text(cut(format("%u%%", n), percent_text_max));
}

constexpr field<qzcap_diagnostics> flash_fields[] = {
    {"userate", &qzcap_diagnostics::flashusage},
    {"free", &qzcap_diagnostics::flashfree},
};

// A zero-terminated list of numbers; null is an empty list.
void add_numbers(json::writer &to, const std::uint32_t *numbers) {
    to.open_array();
    for (; numbers && *numbers; numbers++)
        to.number(*numbers);
    to.close();
}

bool add_ports(request &r, json::writer &item, std::uint32_t *qzcap_devinfo::*ports, const char *missing) {
    if (!r.services.cache.refresh_device())
        return r.fail_item(platform_failed, "qzcap_get_devinfo failed");
    const std::uint32_t *numbers = r.services.cache.device().*ports;
    if (!numbers)
        return r.fail_item(platform_failed, "%s", missing);
    add_numbers(item, numbers);
    return true;
}

}  // namespace

bool get_bandsupport(request &r, json::writer &item) {
    return of_device(r, [&](const qzcap_devinfo &device) {
        const bool second = view_of(device.support_5g2) == "yes";
        item.open_array().text("2.4G");
        if (second)
            item.text("5G-2");
        if (second || view_of(device.support_5g) == "yes")
            item.text("5G");
        item.close();
    });
}

bool get_diaginfo(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { add_object(item, d, diagnostics_fields); });
}
bool get_cpurate(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { add_percent(item, d.cpurate); });
}
bool get_memoryuserate(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { add_percent(item, d.memoryusage); });
}
bool get_cputemp(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { item.number(d.cputemp); });
}
bool get_flashusage(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { item.number(d.flashusage); });
}
bool get_flashfree(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { item.number(d.flashfree); });
}
bool get_flash_stat(request &r, json::writer &item) {
    return of_diagnostics(r, [&](const qzcap_diagnostics &d) { add_object(item, d, flash_fields); });
}

bool get_uploadspeed(request &r, json::writer &item) {
    return of_wan(r, [&](const qzcap_waninfo &wan) { item.text(view_of(wan.uploadspeed)); });
}
bool get_downloadspeed(request &r, json::writer &item) {
    return of_wan(r, [&](const qzcap_waninfo &wan) { item.text(view_of(wan.downloadspeed)); });
}
bool get_networktype(request &r, json::writer &item) {
    return of_wan(r, [&](const qzcap_waninfo &wan) { item.text(view_of(wan.networktype)); });
}
bool get_waninfo(request &r, json::writer &item) {
    return of_wan(r, [&](const qzcap_waninfo &wan) { add_object(item, wan, wan_fields); });
}

bool get_workmode(request &r, json::writer &item) {
    return of_device(r, [&](const qzcap_devinfo &device) { item.text(view_of(device.mode)); });
}
bool get_web_server(request &r, json::writer &item) {
    return of_device(r, [&](const qzcap_devinfo &device) { add_object(item, device, web_server_fields); });
}
bool get_eth_wan_port_index(request &r, json::writer &item) {
    return add_ports(r, item, &qzcap_devinfo::wanports, "wanports is null");
}
bool get_eth_lan_port_index(request &r, json::writer &item) {
    return add_ports(r, item, &qzcap_devinfo::lanports, "lanports is null");
}

bool get_terminal_num(request &r, json::writer &item) {
    const handle<qzcap_terminalnum, &qzcap_free_terminalnum> terminals(platform::call(qzcap_get_terminalnum));
    if (!terminals)
        return r.fail_item(platform_failed, "qzcap_get_terminalnum failed");
    add_object(item, *terminals, terminal_fields);
    return true;
}

bool get_netstat_ports(request &r, json::writer &item) {
    const handle<qzcap_netstatinfo, &qzcap_free_netstatinfo> ports(platform::call(qzcap_diagnostics_netstat));
    if (!ports)
        return r.fail_item(platform_failed, "qzcap_diagnostics_netstat failed");
    item.open_object();
    add_numbers(item.member("tcp"), ports->tcp);
    add_numbers(item.member("udp"), ports->udp);
    item.close();
    return true;
}

}  // namespace arvok::gateway
