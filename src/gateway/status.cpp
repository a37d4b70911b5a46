// "get_status": the table of the 37 items. An item that fails carries its error and spoils no other.

#include "base/clock.h"
#include "base/log.h"
#include "base/text.h"
#include "gateway/handlers.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

bool get_online_time(request &, json::writer &item) {
    item.text(std::to_string(uptime()));
    return true;
}

bool get_arvokstat(request &r, json::writer &item) {
    item.open_object().text("connectedGateway", r.services.link.linked ? "yes" : "no").close();
    return true;
}

bool get_access_list(request &r, json::writer &) {
    return r.fail_item(not_supported, "V2019.1.0 without this interface");
}

struct item_row {
    std::string_view name;
    bool (*get)(request &, json::writer &item);
};

constexpr item_row items[] = {
    {"wifi", get_wifi},
    {"wifitimer", get_wifitimer},
    {"ledswitch", get_ledswitch},
    {"wifiswitch", get_wifiswitch},
    {"wpsswitch", get_wpsswitch},
    {"syncswitch", get_syncswitch},
    {"bandsupport", get_bandsupport},
    {"diaginfo", get_diaginfo},
    {"cpurate", get_cpurate},
    {"cputemp", get_cputemp},
    {"memoryuserate", get_memoryuserate},
    {"flashusage", get_flashusage},
    {"flashfree", get_flashfree},
    {"uploadspeed", get_uploadspeed},
    {"downloadspeed", get_downloadspeed},
    {"wlanstats", get_wlanstats},
    {"channel", get_channel},
    {"onlineTime", get_online_time},
    {"terminalNum", get_terminal_num},
    {"load", get_load},
    {"real_devinfo", get_real_devinfo},
    {"arvokstat", get_arvokstat},
    {"neighborinfo", get_neighborinfo},
    {"networktype", get_networktype},
    {"workmode", get_workmode},
    {"webServer", get_web_server},
    {"netstatPorts", get_netstat_ports},
    {"flashStat", get_flash_stat},
    {"mapInfo", get_map_info},
    {"mapTopology", get_map_topology},
    {"ethWanPortIndex", get_eth_wan_port_index},
    {"ethLanPortIndex", get_eth_lan_port_index},
    {"channelQuality", get_channel_quality},
    {"capability", get_capability},
    {"blacklist", get_access_list},
    {"whitelist", get_access_list},
    {"waninfo", get_waninfo},
};

// The one table whose names match in either case. Most differ from each other in size or beginning.
const item_row *find_item(std::string_view name) {
    constexpr char case_bit = 'a' ^ 'A';
    for (const item_row &row : items)
        if (row.name.size() == name.size() && (row.name[0] | case_bit) == (name[0] | case_bit) &&
            same_ignoring_case(row.name, name))
            return &row;
    return nullptr;
}

/// Bytes of what stands before the items, at most.
constexpr std::size_t envelope_max = 1024;

// Bytes that an item takes at most if it becomes an error.
std::size_t error_size(std::string_view name) {
    constexpr std::size_t longest_error = 96, longest_escape = 6;
    return longest_error + longest_escape * name.size();
}

// The items of a reply. One that is asked for again is what it was before: a message that names one hundreds
// of times is no more work than one that names all.
class status_items {
  public:
    status_items(request &r, json::view get) : request_(r) {
        reply_.open_object("status");
        for (const json::view element : get)
            if (const std::optional<std::string_view> name = element["name"].text())
                room_ -= error_size(*name);
    }

    void add(std::string_view name) {
        const json::writer::position before = reply_.here();
        room_ += error_size(name);  // what comes behind it still has room for its errors
        reply_.member(name);
        if (get(find_item(name)))
            return;
        reply_.back_to(before);
        reply_.member(name).open_object().text("errmsg", request_.errmsg()).close();
    }

    json::value take() {
        reply_.begin_with(request_.reply_of("status").number("errcode", request_.errcode()));
        return reply_.take();
    }

  private:
    struct written {
        std::uint32_t begin = 0, size = 0;
        bool too_long = false;
        int errcode = 0;  ///< of the error that it is
        std::string errmsg;
    };

    bool get(const item_row *row) {
        if (!row)
            return request_.fail_item(not_supported, "unrecognized request");
        written &item = written_[row - items];
        if (item.errcode != 0)
            return request_.fail_item(static_cast<error_code>(item.errcode), "%s", item.errmsg.c_str());
        const std::size_t begin = reply_.here().size;
        if (item.size > 0)
            item.too_long = begin + item.size > room_;
        if (!item.too_long) {
            if (item.size > 0)
                reply_.again(item.begin, item.size);
            else if (!row->get(request_, reply_)) {
                item.errcode = request_.errcode();
                item.errmsg = request_.errmsg();
                return false;
            }
            item.too_long = reply_.is_too_long() || reply_.here().size > room_;
        }
        if (item.too_long)
            return request_.fail_item(platform_failed, too_long);
        item.begin = static_cast<std::uint32_t>(begin);
        item.size = static_cast<std::uint32_t>(reply_.here().size - begin);
        return true;
    }

    request &request_;
    json::object reply_;
    std::size_t room_ = json::text_max - envelope_max;
    written written_[std::size(items)];
};

}  // namespace

bool handle_get_status(request &r) {
    if (!r.has_envelope())
        return false;
    const json::view get = r.root["get"];
    if (!get.is_array()) {
        log_printf("[ERROR] invalid get\n");
        return false;
    }
    status_items items(r, get);
    for (const json::view element : get)
        if (const std::optional<std::string_view> name = element["name"].text())
            items.add(*name);
    r.reply = items.take();
    return true;
}

}  // namespace arvok::gateway
