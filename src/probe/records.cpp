#include "probe/records.h"

#include "base/hex.h"
#include "base/network.h"
#include "cloud/server.h"
#include "gateway/bandwidth.h"
#include "gateway/status_fields.h"

namespace arvok::probe {
namespace {

void check_server(item &to, const char *key, const char *text, const char *otherwise) {
    if (!cloud::is_valid(cloud::parse_server(view_of(text))))
        to.remark(key, "no server: " + quoted(text) + otherwise);
}

void add_bandwidth(item &to, std::uint32_t code) {
    to.members.text("bandwidth", gateway::bandwidth_text(code));
    to.check_range("bandwidth", code, 0, std::size(gateway::bandwidth_texts) - 1);
}

}  // namespace

constexpr field<qzcap_devinfo> device_fields[] = {
    {"mac", &qzcap_devinfo::mac},
    {"vendor", &qzcap_devinfo::vendor},
    {"model", &qzcap_devinfo::model},
    {"swversion", &qzcap_devinfo::swversion},
    {"hdversion", &qzcap_devinfo::hdversion},
    {"sn", &qzcap_devinfo::sn},
    {"url", &qzcap_devinfo::url},
    {"lan_source", &qzcap_devinfo::lan_source},
    {"wireless", &qzcap_devinfo::wireless},
    {"support_5g", &qzcap_devinfo::support_5g},
    {"support_5g2", &qzcap_devinfo::support_5g2},
    {"mode", &qzcap_devinfo::mode},
    {"supportMesh", &qzcap_devinfo::supportMesh},
    {"QZEI", &qzcap_devinfo::QZEI},
    {"devtype", &qzcap_devinfo::devtype},
    {"description", &qzcap_devinfo::description},
};

void describe(item &to, const qzcap_devinfo &device) {
    to.add(device, device_fields);
    to.add(device, gateway::web_server_fields);
    to.add_numbers("lanports", device.lanports);
    to.add_numbers("wanports", device.wanports);
    if (!is_mac(view_of(device.mac)))
        to.error("mac", "no MAC: " + quoted(device.mac) + ": nobody could tell this device from another");
    if (!is_ipv4_address(view_of(device.lan_source)))
        to.remark("lan_source", "no IPv4 address: " + quoted(device.lan_source));
    to.check_word("support_5g", device.support_5g, {"yes", "no"});
    to.check_word("support_5g2", device.support_5g2, {"yes", "no"});
    to.check_word("mode", device.mode, {"router", "bridge"});
    if (!device.lanports)
        to.remark("lanports", "null: the item ethLanPortIndex is answered with an error");
    if (!device.wanports)
        to.remark("wanports", "null: the item ethWanPortIndex is answered with an error");
}

void describe(item &to, const qzcap_diagnostics &load) {
    to.add(load, gateway::diagnostics_fields);
    to.check_range("cpurate", load.cpurate, 0, 100);
    to.check_range("memoryusage", load.memoryusage, 0, 100);
}

void describe(item &to, const qzcap_netstatinfo &ports) {
    to.add_numbers("tcp", ports.tcp);
    to.add_numbers("udp", ports.udp);
}

void describe(item &to, const qzcap_terminalnum &terminals) {
    to.add(terminals, gateway::terminal_fields);
}

void describe(item &to, const qzcap_waninfo &wan) {
    to.add(wan, gateway::wan_fields);
    to.check_word("status", wan.status, {"up", "down"});
}

void describe(item &to, const qzcap_laninfo &host) {
    const std::uint32_t mbits = host.negorate / 1000;
    to.add(host, gateway::host_fields_before_ssid);
    to.members.number("negorate", mbits);
    to.add(host, gateway::host_fields_behind_rate);
    to.check_mac("mac", host.mac);
    to.check_range("connecttype", host.connecttype, 0, platform::connected_wireless);
    if (host.connecttype == platform::connected_wireless)
        to.check_word("band", host.band, {"5G-2", "5G", "2.4G"});
}

constexpr field<qzcap_mesh> mesh_fields[] = {{"mapRole", &qzcap_mesh::role},
                                             {"mapAlmac", &qzcap_mesh::almac},
                                             {"onlineTime", &qzcap_mesh::onlinetime}};

void describe(item &to, const qzcap_mesh &mesh) {
    to.add(mesh, mesh_fields);
}

constexpr field<qzcap_backhaulbss> backhaul_fields[] = {
    {"ssid", &qzcap_backhaulbss::ssid},
    {"auth", &qzcap_backhaulbss::auth},
    {"encrypt", &qzcap_backhaulbss::encrypt},
};

void describe(item &to, const qzcap_backhaulbss &backhaul) {
    to.add(backhaul, backhaul_fields);
    to.members.text("key", masked(backhaul.key));
}

constexpr field<qzcap_roaming> roaming_fields[] = {
    {"enable", &qzcap_roaming::enable},     {"rssi2G", &qzcap_roaming::rssi_2g},
    {"rssi5G", &qzcap_roaming::rssi_5g},    {"difference", &qzcap_roaming::difference},
    {"interval", &qzcap_roaming::interval},
};

void describe(item &to, const qzcap_roaming &roaming) {
    to.add(roaming, roaming_fields);
}

void describe(item &to, const qzcap_serverinfo &servers) {
    json::array others;
    check_server(to, "bss", servers.bss, ": the one that is built in is asked");
    if (servers.abi)
        check_server(to, "abi", servers.abi, ": left out");
    for (std::uint32_t i = 0; servers.abi_list && i < servers.abi_count && i < cloud::business_max; i++) {
        check_server(to, "abi_list", servers.abi_list[i], ": left out");
        others.add(json::text(view_of(servers.abi_list[i])));
    }
    to.check_range("abi_count", servers.abi_count, 0, cloud::business_max - (servers.abi ? 1 : 0));
    to.members.text("bss", servers.bss)
        .text("abi", servers.abi)
        .add("abi_list", others.take())
        .text("devid", servers.devid)
        .text("devtoken", masked(servers.devtoken));
}

constexpr field<qzcap_wifiinfo> radio_fields[] = {
    {"enable", &qzcap_wifiinfo::enable},
    {"channel", &qzcap_wifiinfo::channel},
    {"currentChannel", &qzcap_wifiinfo::current_channel},
    {"txpower", &qzcap_wifiinfo::txpower},
    {"load", &qzcap_wifiinfo::load},
    {"wifimode", &qzcap_wifiinfo::wifimode},
    {"supported_modes", &qzcap_wifiinfo::supported_modes},
    {"supported_auth", &qzcap_wifiinfo::supported_auth},
};

void describe(item &to, const qzcap_wifiinfo &radio) {
    to.add(radio, radio_fields);
    add_bandwidth(to, radio.bandwidth);
    to.check_range("channel", radio.channel, 0, 255);
    to.check_range("currentChannel", radio.current_channel, 1, 255);
}

constexpr field<qzcap_wifi_switch> switch_fields[] = {{"wifiswitch", &qzcap_wifi_switch::wifiswitch},
                                                      {"wpsswitch", &qzcap_wifi_switch::wpsswitch},
                                                      {"syncswitch", &qzcap_wifi_switch::arvoksync}};

void describe(item &to, const qzcap_wifi_switch &switches) {
    to.add(switches, switch_fields);
    for (const field<qzcap_wifi_switch> &f : switch_fields)
        to.check_word(f.key, switches.*std::get<char * qzcap_wifi_switch::*>(f.source), {"on", "off"});
}

constexpr field<qzcap_wifi_timer> timer_fields[] = {{"id", &qzcap_wifi_timer::id},
                                                    {"weekday", &qzcap_wifi_timer::weekday},
                                                    {"time", &qzcap_wifi_timer::time},
                                                    {"enable", &qzcap_wifi_timer::enable}};

void describe(item &to, const qzcap_wifi_timer &timer) {
    to.add(timer, timer_fields);
    to.check_word("enable", timer.enable, {"yes", "no"});
}

constexpr field<qzcap_neighbourinfo> neighbour_fields[] = {
    {"rfband", &qzcap_neighbourinfo::rfband},
    {"ssidname", &qzcap_neighbourinfo::ssidname},
    {"bssid", &qzcap_neighbourinfo::bssid},
    {"networktype", &qzcap_neighbourinfo::networktype},
    {"channel", &qzcap_neighbourinfo::channel},
    {"rssi", printed<qzcap_neighbourinfo, std::int32_t>{&qzcap_neighbourinfo::rssi}},
    {"standard", &qzcap_neighbourinfo::standard},
};

void describe(item &to, const qzcap_neighbourinfo &heard) {
    to.add(heard, neighbour_fields);
    add_bandwidth(to, heard.bandwidth);
    to.check_mac("bssid", heard.bssid);
}

constexpr field<qzcap_channel_score> score_fields[] = {{"ch", &qzcap_channel_score::channel},
                                                       {"score", &qzcap_channel_score::score}};

void describe(item &to, const qzcap_channel_score &of) {
    to.add(of, score_fields);
}

void describe(item &to, const qzcap_wifi_ap &interface) {
    std::string key = masked(interface.key);
    qzcap_wifi_ap shown = interface;
    shown.key = interface.key ? key.data() : nullptr;
    to.members.number("apidx", static_cast<double>(interface.index) - 1);
    to.add(shown, gateway::interface_fields);
    to.members.number("hidden", interface.hidden)
        .number("inuse", interface.inuse)
        .number("guest", interface.guest);
    to.check_range("apidx", std::int64_t{interface.index} - 1, 0, 255);
    to.check_mac("bssid", interface.bssid);
    to.check_word("enable", interface.enable, {"yes", "no"});
    if (const std::size_t size = view_of(interface.ssid).size(); size > gateway::host_ssid_max)
        to.remark("ssid",
                  format("%zu bytes, of which hosts and events tell %zu", size, gateway::host_ssid_max));
}

void describe(item &to, const qzcap_wifi_apstat &traffic) {
    to.add(traffic, gateway::traffic_fields);
}

constexpr field<qzcap_app> app_fields[] = {
    {"name", &qzcap_app::name}, {"Version", &qzcap_app::version}, {"state", &qzcap_app::state}};

void describe(item &to, const qzcap_app &app) {
    to.add(app, app_fields);
    to.check_word("state", app.state, {"running", "stopped"});
}

}  // namespace arvok::probe
