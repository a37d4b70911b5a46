// GET_LANHOST_INFO: the hosts that the platform knows, with what the rules say about them.

#include <cstdlib>
#include <optional>
#include <string>
#include <type_traits>

#include "access/host_commands.h"
#include "access/outcome.h"
#include "base/text.h"
#include "platform/records.h"

namespace arvok::access {
namespace {

constexpr char every_host[] = "2";

// --- what a host's fields say ---

// A member as it stands; an integer as its signed decimal text.
template <auto Member>
std::string copied(const qzcap_laninfo &host, const schedules &) {
    if constexpr (std::is_same_v<decltype(Member), char * qzcap_laninfo::*>)
        return std::string(view_of(host.*Member));
    else
        return std::to_string(static_cast<std::int32_t>(host.*Member));
}

std::string radio(const qzcap_laninfo &host, const schedules &) {
    const std::string_view band = view_of(host.band);
    return band == "5G" ? "1" : band == "5G-2" ? "2" : "0";
}

std::string is_controlled(const qzcap_laninfo &host, const schedules &) {
    const bool free = host.uplimit == 0 && host.downlimit == 0 && host.storageaccess != 0 &&
                      host.internetaccess == unrestricted;
    return free ? "0" : "1";
}

std::string is_scheduled(const qzcap_laninfo &host, const schedules &rules) {
    return rules.find(host_id(view_of(host.mac))) ? "1" : "0";
}

std::string object_path(const qzcap_laninfo &host, const schedules &) {
    return "qzcapd.laninfo." + std::to_string(host.index);
}

std::string unknown(const qzcap_laninfo &, const schedules &) {
    return "";
}

std::string always(const qzcap_laninfo &, const schedules &) {
    return "1";
}

struct host_field {
    const char *key;
    std::string (*text)(const qzcap_laninfo &host, const schedules &rules);
};

constexpr host_field host_fields[] = {
    {"MAC", copied<&qzcap_laninfo::mac>},
    {"HN", copied<&qzcap_laninfo::hostname>},
    {"DN", copied<&qzcap_laninfo::devname>},
    {"FB", radio},
    {"IA", copied<&qzcap_laninfo::internetaccess>},
    {"SA", copied<&qzcap_laninfo::storageaccess>},
    {"MUB", copied<&qzcap_laninfo::uplimit>},
    {"MDB", copied<&qzcap_laninfo::downlimit>},
    {"US", copied<&qzcap_laninfo::uploadspeed>},
    {"DS", copied<&qzcap_laninfo::downloadspeed>},
    {"IP", copied<&qzcap_laninfo::ipaddr>},
    {"CT", copied<&qzcap_laninfo::connecttype>},
    {"Po", copied<&qzcap_laninfo::port>},
    {"Br", copied<&qzcap_laninfo::brand>},
    {"Mo", copied<&qzcap_laninfo::model>},
    {"Act", copied<&qzcap_laninfo::active>},
    {"LAT", copied<&qzcap_laninfo::activetime>},
    {"LIT", copied<&qzcap_laninfo::inactivetime>},
    {"OT", copied<&qzcap_laninfo::onlinetime>},
    {"RB", copied<&qzcap_laninfo::bytesreceived>},
    {"TB", copied<&qzcap_laninfo::bytessent>},
    {"PL", copied<&qzcap_laninfo::rssi>},
    {"OS", unknown},
    {"DT", unknown},
    {"CS", is_controlled},
    {"DON", always},
    {"LTS", is_scheduled},
    {"ObjP", object_path},
};

}  // namespace

void host_commands::get_hosts(json::view message, bus_message &reply) {
    const auto wanted = message["OprType"].text();
    if (!wanted)
        return add_outcome(reply, "invalid msg, OprType", "-201");
    const auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    reply.text("Status", hosts ? "0" : "-101");
    reply.text("FailReason", hosts ? "" : "qzcapd.laninfo list failed");
    const bool all = *wanted == every_host;
    const int active = std::atoi(wanted->data());
    const bus_message::array info(reply, "Info");
    if (!hosts)
        return;
    for (const qzcap_laninfo *host : *hosts) {
        if (!all && host->active != active)
            continue;
        const bus_message::table table(reply);
        for (const host_field &field : host_fields)
            reply.text(field.key, field.text(*host, store_.rules().times));
    }
}

}  // namespace arvok::access
