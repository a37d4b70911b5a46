// Calls every reading function of the platform library once, and tells what the agent makes of what it gets.

#include <algorithm>
#include <cstdio>

#include "platform/cache.h"
#include "platform/session.h"
#include "probe/records.h"

namespace arvok::probe {
namespace {

constexpr unsigned int records_max = 4096;

// What a call gives; null or a negative number when it failed.
template <typename Call, typename... Arguments>
auto timed(report &to, const std::string &call, Call function, Arguments... arguments) {
    to.begin(call);
    const auto result = function(arguments...);
    to.end();
    to.check_time();
    return result;
}

void tell_failure(report &to) {
    to.remark("failed: what the agent needs it for is answered with an error");
}

template <typename Call, typename Record, typename... Arguments>
void probe_record(report &to, const std::string &call, Call get, void (*release)(Record *),
                  Arguments... arguments) {
    Record *const record = timed(to, call, get, arguments...);
    item found(to, "");
    if (record)
        describe(found, *record);
    else if (std::is_same_v<Record, qzcap_devinfo>)
        to.error("failed: without this record the agent does not begin");
    else
        tell_failure(to);
    to.write("record", record ? found.members.take() : json::value());
    release(record);
}

template <typename Call, typename Record, typename... First>
void probe_list(report &to, const std::string &call, Call get, void (*release)(unsigned int, Record **),
                First... first) {
    unsigned int count = 0;
    Record **records = nullptr;
    const bool failed = timed(to, call, get, first..., &count, &records) < 0;
    if (failed) {
        tell_failure(to);
        return to.write("list", {});
    }
    if (count > records_max)
        to.error(format("%u records, of which the first %u are looked at", count, records_max));
    json::array listed;
    for (unsigned int i = 0; i < std::min(count, records_max); i++) {
        if (!records || !records[i]) {
            to.error(format("null instead of record %u of %u", i, count));
            break;
        }
        item found(to, format("[%u] ", i));
        describe(found, *records[i]);
        listed.add(found.members.take());
    }
    to.write("list", listed.take());
    if (count <= records_max)
        release(count, records);
}

void probe_led(report &to) {
    const platform::owned_text state(timed(to, "qzcap_get_led_switch", qzcap_get_led_switch));
    if (state)
        item(to, "").check_word("status", state.get(), {"on", "off"});
    else
        tell_failure(to);
    to.write("text", state ? json::text(state.get()) : json::value());
}

void probe_topology(report &to) {
    const platform::owned_text text(timed(to, "qzcap_mesh_topo", qzcap_mesh_topo, 0));
    const json::document topology = text ? json::parse(text.get()) : json::document();
    if (!text)
        tell_failure(to);
    else if (!topology.root().is_object())
        to.remark("no JSON object: the item mapTopology is answered with an error");
    to.write("record", json::copy(topology.root()));
}

template <typename Call, typename Name>
void probe_object(report &to, const std::string &call, Call get, Name name) {
    const std::uint32_t id = timed(to, call, get, name);
    if (id == 0)
        to.remark("absent from the bus");
    to.write("id", json::number(id));
}

constexpr struct {
    const char *name;
    qzcap_object number;
} objects[] = {{"laninfo", QZCAP_OBJ_LANINFO}, {"wan", QZCAP_OBJ_WAN},         {"wifi", QZCAP_OBJ_WIFI},
               {"mesh", QZCAP_OBJ_MESH},       {"roaming", QZCAP_OBJ_ROAMING}, {"vsie", QZCAP_OBJ_VSIE}};

void probe_bus(report &to) {
    for (const auto &object : objects)
        probe_object(to, format("qzcap_get_objid_by_id %s", object.name), qzcap_get_objid_by_id,
                     object.number);
    probe_object(to, "qzcap_get_objid_by_name qzcapd.wifi", qzcap_get_objid_by_name, "qzcapd.wifi");
    ubus_context *const bus = timed(to, "qzcap_get_ubus_context", qzcap_get_ubus_context);
    probe_list(to, "qzcap_get_applist", qzcap_get_applist, qzcap_free_applist, bus);
}

void probe_device(report &to) {
    probe_record(to, "qzcap_get_devinfo", qzcap_get_devinfo, qzcap_free_devinfo);
    probe_record(to, "qzcap_diagnostics_get", qzcap_diagnostics_get, qzcap_free_diagnostics);
    probe_record(to, "qzcap_diagnostics_netstat", qzcap_diagnostics_netstat, qzcap_free_netstatinfo);
    probe_record(to, "qzcap_get_terminalnum", qzcap_get_terminalnum, qzcap_free_terminalnum);
    probe_led(to);
    probe_record(to, "qzcap_get_serverinfo", qzcap_get_serverinfo, qzcap_free_serverinfo);
    probe_record(to, "qzcap_get_waninfo", qzcap_get_waninfo, qzcap_free_waninfo);
    probe_list(to, "qzcap_list_laninfo", qzcap_list_laninfo, qzcap_free_laninfos);
}

void probe_band(report &to, const platform::band &band) {
    const auto of = [&band](const char *name) { return format("%s %s", name, band.word); };
    probe_record(to, of("qzcap_get_wifiinfo"), qzcap_get_wifiinfo, qzcap_free_wifiinfo, band.radio);
    probe_list(to, of("qzcap_get_channel_score"), qzcap_get_channel_score, qzcap_free_channel_score,
               band.radio);
    probe_list(to, of("qzcap_wifi_ap_list"), qzcap_wifi_ap_list, qzcap_free_wifi_aps, band.access_point);
    probe_record(to, of("qzcap_wifi_ap_get"), qzcap_wifi_ap_get, qzcap_free_wifi_ap, band.access_point, 1);
    probe_record(to, of("qzcap_wifi_ap_stats"), qzcap_wifi_ap_stats, qzcap_free_wifi_apstat,
                 band.access_point, 1);
}

void probe_wifi(report &to) {
    probe_record(to, "qzcap_get_wifi_switch", qzcap_get_wifi_switch, qzcap_free_wifi_switch);
    probe_list(to, "qzcap_wifi_timer_list", qzcap_wifi_timer_list, qzcap_free_wifi_timers);
    probe_list(to, "qzcap_get_neighbourinfo", qzcap_get_neighbourinfo, qzcap_free_neighbourinfo);
    for (const platform::band &band : platform::bands)
        probe_band(to, band);
    probe_record(to, "qzcap_get_roaming", qzcap_get_roaming, qzcap_free_roaming);
    probe_record(to, "qzcap_get_mesh_roaming", qzcap_get_mesh_roaming, qzcap_free_roaming);
    probe_record(to, "qzcap_get_mesh", qzcap_get_mesh, qzcap_free_mesh);
    probe_record(to, "qzcap_mesh_backhaulbss", qzcap_mesh_backhaulbss, qzcap_free_backhaulbss);
    probe_topology(to);
}

int run() {
    report to;
    to.begin("qzcap_ubus_start");
    const platform::session session;
    to.end();
    if (!session.is_open())
        to.error("there is no bus");
    to.write("open", json::number(session.is_open()));
    if (session.is_open()) {
        probe_bus(to);
        probe_device(to);
        probe_wifi(to);
    }
    return to.status();
}

}  // namespace
}  // namespace arvok::probe

int main(int argc, char **argv) {
    if (argc == 1)
        return arvok::probe::run();
    const bool asked =
        argc == 2 && (argv[1] == std::string_view("-h") || argv[1] == std::string_view("--help"));
    if (!asked)
        std::fprintf(stderr, "qzcap-probe: unknown option %s\n", argv[1]);
    std::fputs(
        "usage: qzcap-probe [-h]\n"
        "\n"
        "Calls every reading function of the platform library once. Shows what it gives, in JSON, and on\n"
        "standard error what the agent would make of it. Changes nothing.\n"
        "\n"
        "Exit status: 0; 1 when the agent could not work on this device; 2 for a wrong option.\n",
        asked ? stdout : stderr);
    return asked ? 0 : 2;
}
