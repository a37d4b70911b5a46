// GET_LANHOST_INFO: the hosts that the platform knows, with what the rules say about them.

#include <cstdlib>
#include <type_traits>

#include "arvok/app_messages.h"
#include "common/text.h"
#include "extcc/rules.h"

namespace arvok {
namespace {

constexpr char laninfo_object[] = "qzcapd.laninfo";
constexpr char every_host[] = "2";

// --- what a host's fields say ---

using host_text = std::string (*)(const qzcap_laninfo &host);

/// A member as it stands; an integer as its signed decimal text.
template <auto Member>
std::string copied(const qzcap_laninfo &host) {
    if constexpr (std::is_same_v<decltype(Member), char * qzcap_laninfo::*>)
        return text_or_empty(host.*Member);
    else
        return std::to_string(static_cast<std::int32_t>(host.*Member));
}

std::string radio(const qzcap_laninfo &host) {
    return _strcmp(host.band, "5G") == 0 ? "1" : _strcmp(host.band, "5G-2") == 0 ? "2" : "0";
}

std::string is_controlled(const qzcap_laninfo &host) {
    const bool free = host.uplimit == 0 && host.downlimit == 0 && host.storageaccess != 0 &&
                      host.internetaccess == access_unrestricted;
    return free ? "0" : "1";
}

std::string is_scheduled(const qzcap_laninfo &host) {
    return _find_timer_host(host.mac) ? "1" : "0";
}

std::string object_path(const qzcap_laninfo &host) {
    return laninfo_object + ("." + std::to_string(host.index));
}

std::string unknown(const qzcap_laninfo &) {
    return "";
}

std::string always(const qzcap_laninfo &) {
    return "1";
}

struct host_field {
    const char *key;
    host_text text;
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

void add_host(const qzcap_laninfo &host) {
    const reply_table table;
    for (const host_field &field : host_fields)
        add_reply_text(field.key, field.text(host).c_str());
}

}  // namespace

void get_lanhost_info(const cJSON *root) {
    const char *wanted = json_text(root, "OprType");
    if (!wanted)
        return add_reply_outcome("invalid msg, OprType", "-201");
    laninfos_ptr hosts;
    const bool listed = list_hosts(hosts);
    add_reply_text("Status", listed ? "0" : "-101");
    add_reply_text("FailReason", listed ? "" : "qzcapd.laninfo list failed");
    const bool all = _strcmp(wanted, every_host) == 0;
    const int active = std::atoi(wanted);
    const reply_array info("Info");
    for_each_host(hosts, [all, active](const qzcap_laninfo &host) {
        if (all || host.active == active)
            add_host(host);
    });
}

}  // namespace arvok
