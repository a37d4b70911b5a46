// Settings of single hosts on the LAN: what they are called and may reach, and how fast.
//
// A request is an array of hosts. Members are checked first, then whether each host is known, and only then
// is anything set; the first setting that the platform refuses ends the request. A host that is named again
// is set once, to what was said of it last: a request may hold hundreds of them.

#include <algorithm>
#include <span>
#include <vector>

#include "gateway/request_members.h"
#include "gateway/settings.h"

namespace arvok::gateway {
namespace {

struct text_member {
    const char *name;
    char *qzcap_laninfo::*text;
};

struct number_member {
    const char *name;
    std::int32_t qzcap_laninfo::*number;
    std::int32_t max;
};

struct host_row {
    const char *name;
    bool all_required;
    std::span<const text_member> texts;
    std::span<const number_member> numbers;
};

constexpr text_member described_texts[] = {{"hostname", &qzcap_laninfo::hostname},
                                           {"brand", &qzcap_laninfo::brand},
                                           {"model", &qzcap_laninfo::model}};
constexpr number_member described_numbers[] = {{"internetaccess", &qzcap_laninfo::internetaccess, 2},
                                               {"storageaccess", &qzcap_laninfo::storageaccess, 2}};
constexpr number_member limits[] = {{"uplimit", &qzcap_laninfo::uplimit, INT32_MAX},
                                    {"downlimit", &qzcap_laninfo::downlimit, INT32_MAX}};

constexpr host_row description{"real_devinfo", false, described_texts, described_numbers};
constexpr host_row speed_limits{"speedlimit", true, {}, limits};

// Reads every member of an element that the row has; those given go into `host`, if there is one.
bool read_host(request &r, const host_row &row, json::view element, qzcap_laninfo *host) {
    request_members members(r, element);
    members.text("mac");
    for (const text_member &member : row.texts) {
        if (!members.has(member.name))
            continue;
        const std::string_view text = members.text(member.name);
        if (members.ok() && host)
            platform::replace_text(host->*member.text, text);
    }
    for (const number_member &member : row.numbers) {
        if (!row.all_required && !members.has(member.name))
            continue;
        const std::int32_t number = members.number(member.name, 0, member.max);
        if (members.ok() && host)
            host->*member.number = number;
    }
    return members.ok();
}

// The "mac" of an element that was read.
std::string_view mac_of(json::view element) {
    return element["mac"].text().value_or("");
}

void set_hosts(request &r, const host_row &row, json::view value) {
    if (!value.is_array())
        return r.fail(invalid_parameter, "invalid %s", row.name);
    for (const json::view element : value)
        if (!read_host(r, row, element, nullptr))
            return;
    const auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    if (!hosts)
        return r.fail(platform_failed, "qzcap_list_laninfo failed");
    std::vector<qzcap_laninfo *> named;
    for (const json::view element : value) {
        qzcap_laninfo *host = platform::find_host(*hosts, mac_of(element));
        if (!host)
            return r.fail(invalid_parameter, "unknown mac %s", mac_of(element).data());
        read_host(r, row, element, host);
        if (std::find(named.begin(), named.end(), host) == named.end())
            named.push_back(host);
    }
    for (qzcap_laninfo *const host : named) {
        platform::reason why;
        if (platform::call(qzcap_set_laninfo, host->index, host, why) < 0)
            return r.fail(platform_failed, "qzcap_set_laninfo failed: %s", why.c_str());
    }
}

}  // namespace

void set_real_devinfo(request &r, json::view value) {
    set_hosts(r, description, value);
}

void set_speedlimit(request &r, json::view value) {
    set_hosts(r, speed_limits, value);
}

}  // namespace arvok::gateway
