// Settings of single hosts on the LAN: what they are called and may reach, and how fast.
//
// A request is an array of hosts. Members are checked first, then whether each host is known, and only then
// is anything set; the first setting that the platform refuses ends the request.

#include <span>

#include "arvok_client/handlers.h"
#include "arvok_client/request_members.h"

namespace arvok {
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
bool read_host(const host_row &row, const cJSON *element, qzcap_laninfo *host) {
    request_members members(element);
    members.text("mac");
    for (const text_member &member : row.texts) {
        if (!members.has(member.name))
            continue;
        const char *text = members.text(member.name);
        if (members.ok() && host)
            replace_text(host->*member.text, text);
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

qzcap_laninfo *host_of(const laninfos_ptr &hosts, const cJSON *element) {
    return find_host(hosts, json_text(element, "mac"));
}

void set_hosts(const host_row &row, const cJSON *value) {
    if (!cJSON_IsArray(value))
        return arvok_set_error(err_invalid_parameter, "invalid %s", row.name);
    for (const cJSON *element = value->child; element; element = element->next)
        if (!read_host(row, element, nullptr))
            return;
    laninfos_ptr hosts;
    if (!list_hosts(hosts))
        return arvok_set_error(err_platform, "qzcap_list_laninfo failed");
    for (const cJSON *element = value->child; element; element = element->next)
        if (!host_of(hosts, element))
            return arvok_set_error(err_invalid_parameter, "unknown mac %s", json_text(element, "mac"));
    for (const cJSON *element = value->child; element; element = element->next) {
        qzcap_laninfo *host = host_of(hosts, element);
        read_host(row, element, host);
        char *reason = nullptr;
        if (qzcap_set_laninfo(host->index, host, &reason) < 0)
            return arvok_set_platform_error("qzcap_set_laninfo", reason);
    }
}

}  // namespace

void set_real_devinfo(const cJSON *value) {
    set_hosts(description, value);
}

void set_speedlimit(const cJSON *value) {
    set_hosts(speed_limits, value);
}

}  // namespace arvok
