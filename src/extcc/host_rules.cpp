// The commands that set and tell the rules of LAN hosts: access schedules, blocking, rate limits, and the
// dump of all of them.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arvok/app_messages.h"
#include "common/clock.h"
#include "common/files.h"
#include "common/text.h"
#include "context.h"
#include "extcc/rules.h"

namespace arvok {
namespace {

constexpr int apply_delay_ms = 200;
constexpr unsigned long limit_max = 2147483648;
constexpr char no_continue_id[] = "nocid";

constexpr char mac_missing[] = "MAC not found";
constexpr char info_not_array[] = "Info is not array";

/// A MAC as the rules keep it, so that a longer one meets its own rule again.
std::string kept(const char *mac) {
    return std::string(mac, strnlen(mac, rule_mac_size - 1));
}

void add_signed_text(const char *name, std::uint32_t value) {
    add_reply_text(name, std::to_string(static_cast<std::int32_t>(value)).c_str());
}

void add_signed(const char *name, std::uint32_t value) {
    add_reply_int(name, static_cast<std::int32_t>(value));
}

// --- schedules ---

bool is_blocked(const char *mac) {
    const parent_rule *rule = _find_parent_rule(kept(mac).c_str());
    return rule && rule->flags & parent_internet && rule->internet != access_unrestricted;
}

/// Null, and said in the log, when the file cannot be opened. What was cut off in the middle of its last line
/// does not take the next one along.
file_ptr open_for_appending() {
    const std::string path = rule_path(schedule_file);
    file_ptr file(std::fopen(path.c_str(), "a+e"));
    if (!file) {
        qzcap_printf("[ERROR] %s: failed to save %s %s\n", "set_lanhost_timer", path.c_str(),
                     std::strerror(errno));
        return file;
    }
    const bool cut = std::fseek(file.get(), -1, SEEK_END) == 0 && std::fgetc(file.get()) != '\n';
    std::fseek(file.get(), 0, SEEK_END);
    if (cut)
        std::fputc('\n', file.get());
    return file;
}

/// Stores one rule of the request, in the file unless that is null. Returns what is wrong with it, or null.
const char *store_rule(std::FILE *file, const char *mac, const cJSON *rule) {
    const char *start = json_text(rule, "StartTime"), *end = json_text(rule, "EndTime");
    if (!_is_valid_hhmm(start) || !_is_valid_hhmm(end))
        return "invalid StartTime/EndTime";
    const char *mode = json_text(rule, "Mode");
    if (!_is_uint_in(mode, 0, 7))
        return "invalid Mode";
    const char *enable = json_text(rule, "Enable");
    if (!_is_uint_in(enable, 0, 1))
        return "invalid Enable";
    const char *continue_id = json_text(rule, "ContinueID");
    if (file) {
        // Numbers as numbers: a text like "+01" is one, but its field in the file has no room for it.
        const std::string line = std::string(mac) + "|" + std::to_string(uint_value(mode)) + "|" + start +
                                 "|" + end + "|" + std::to_string(uint_value(enable)) + "|" +
                                 (continue_id && *continue_id ? continue_id : no_continue_id) + "|" +
                                 text_or_empty(json_text(rule, "GroupID"));
        std::fprintf(file, "%s\n", one_line(line).c_str());
    }
    _add_mac_to_list(mac, start, end, static_cast<int>(uint_value(enable)),
                     static_cast<int>(uint_value(mode)));
    return nullptr;
}

/// Stores the rules up to the first that is wrong. Returns what is wrong with it, or null.
const char *store_rules(const char *mac, const cJSON *info) {
    const file_ptr file = open_for_appending();
    const char *fault = nullptr;
    const cJSON *rule = nullptr;
    cJSON_ArrayForEach(rule, info) {
        g_ctx.extcc.pending_mac[0] = '\0';
        fault = store_rule(file.get(), mac, rule);
        if (fault)
            break;
    }
    if (file) {
        std::fflush(file.get());
        fsync(fileno(file.get()));
    }
    return fault;
}

// --- blocking and rate limits ---

/// The host's entry, with the flag set.
parent_rule &parent_rule_with(parent_flag flag, const char *mac) {
    const std::string key = kept(mac);
    if (!_find_parent_rule(key.c_str()))
        _add_parent_rule(key.c_str(), flag, 0, 0, 0);
    parent_rule &rule = *_find_parent_rule(key.c_str());
    rule.flags |= flag;
    return rule;
}

void save_and_apply() {
    _save_pr_cfg();
    add_reply_success();
    uloop_timeout_set(&g_ctx.extcc.parent_timer, apply_delay_ms);
}

void add_exec(const parent_rule &rule) {
    add_reply_text("Exec", rule.applied == rule.flags ? "True" : "False");
}

}  // namespace

void set_lanhost_timer(const cJSON *root) {
    const char *mac = json_text(root, "MAC");
    if (!mac)
        return add_reply_outcome(mac_missing, "-202");
    if (is_blocked(mac))
        return add_reply_outcome("MAC already in internet rules", "-1000");
    const cJSON *info = json_member(root, "Info");
    if (!cJSON_IsArray(info))
        return add_reply_outcome(info_not_array, "-201");

    _remove_timer_lines(mac);
    _strlcpy(g_ctx.extcc.pending_mac, mac, sizeof g_ctx.extcc.pending_mac);
    remove_timer_host(kept(mac).c_str());
    const char *fault = store_rules(mac, info);
    // Also for what was stored before a fault: its boundaries are nobody else's to watch.
    uloop_timeout_set(&g_ctx.extcc.lanhost_timer, apply_delay_ms);
    if (fault)
        return add_reply_outcome(fault, "-1");
    add_reply_success();
}

void get_lanhost_timer(const cJSON *root) {
    const char *mac = json_text(root, "MAC");
    if (!mac)
        return add_reply_outcome(mac_missing, "-202");
    {
        const reply_array info("Info");
        for (const schedule_line &line : schedule_lines()) {
            if (_strcasecmp(line.mac, mac) != 0)
                continue;
            const reply_table table;
            const bool continues = _strcmp(line.continue_id, no_continue_id) != 0;
            add_reply_text("ContinueID", continues ? line.continue_id : "");
            add_reply_text("Mode", line.mode);
            add_reply_text("StartTime", line.start);
            add_reply_text("EndTime", line.end);
            add_reply_text("Enable", line.enable);
            add_reply_text("GroupID", line.group_id);
        }
    }
    add_reply_success();
}

void set_lanhost_internet(const cJSON *root) {
    const cJSON *info = json_member(root, "Info");
    if (!cJSON_IsArray(info))
        return add_reply_outcome(info_not_array, "-201");
    bool changed = !info->child;
    if (changed)
        drop_parent_flag(parent_internet);
    const cJSON *host = nullptr;
    cJSON_ArrayForEach(host, info) {
        const char *mac = json_text(host, "MAC");
        if (!mac)
            return add_reply_outcome(mac_missing, "-202");
        if (_find_timer_host(kept(mac).c_str()))
            continue;
        const char *access = json_text(host, "InternetAccess");
        if (!_is_uint_in(access, 0, 2))
            return add_reply_outcome("invalid InternetAccess", "-1");
        parent_rule_with(parent_internet, mac).internet = uint_value(access);
        changed = true;
    }
    if (!changed)
        return add_reply_outcome("MAC already in timer rules", "-1000");
    save_and_apply();
}

void get_lanhost_internet(const cJSON *) {
    {
        const reply_array info("Info");
        for (const parent_rule &rule : g_ctx.extcc.parent_rules) {
            if (!(rule.flags & parent_internet) || rule.internet == access_unrestricted)
                continue;
            const reply_table table;
            add_reply_text("MAC", rule.mac);
            add_signed_text("InternetAccess", rule.internet);
            add_exec(rule);
        }
    }
    add_reply_success();
}

void set_lanhost_bandwidth(const cJSON *root) {
    const cJSON *info = json_member(root, "Info");
    if (!cJSON_IsArray(info))
        return add_reply_outcome(info_not_array, "-201");
    if (!info->child)
        drop_parent_flag(parent_rate);
    const cJSON *host = nullptr;
    cJSON_ArrayForEach(host, info) {
        const char *mac = json_text(host, "MAC");
        if (!mac)
            return add_reply_outcome(mac_missing, "-202");
        const char *up = json_text(host, "MaxUSBandwidth"), *down = json_text(host, "MaxDSBandwidth");
        if (!_is_uint_in(up, 0, limit_max))
            return add_reply_outcome("invalid US", "-1");
        if (!_is_uint_in(down, 0, limit_max))
            return add_reply_outcome("invalid DS", "-1");
        parent_rule &rule = parent_rule_with(parent_rate, mac);
        rule.up_limit = uint_value(up);
        rule.down_limit = uint_value(down);
    }
    save_and_apply();
}

void get_lanhost_bandwidth(const cJSON *) {
    {
        const reply_array info("Info");
        for (const parent_rule &rule : g_ctx.extcc.parent_rules) {
            if (!(rule.flags & parent_rate) || (rule.up_limit == 0 && rule.down_limit == 0))
                continue;
            const reply_table table;
            add_reply_text("MAC", rule.mac);
            add_signed_text("MaxUSBandwidth", rule.up_limit);
            add_signed_text("MaxDSBandwidth", rule.down_limit);
            add_exec(rule);
        }
    }
    add_reply_success();
}

// --- EXTCC_DUMP ---

namespace {

void add_times() {
    char text[64] = "";
    if (const std::tm *tm = _cst_localtime(wall_clock()))
        std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", tm->tm_year + 1900, tm->tm_mon + 1,
                      tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec);
    add_reply_text("Time", text);

    const int hosts_s = static_cast<int>(uloop_timeout_remaining(&g_ctx.extcc.lanhost_timer) / 1000);
    std::snprintf(text, sizeof text, "%ds (%dh%dm%ds)", hosts_s, hosts_s / 3600, hosts_s % 3600 / 60,
                  hosts_s % 60);
    add_reply_text("LANHostNextCheck", text);

    const int guest_s = static_cast<int>(uloop_timeout_remaining(&g_ctx.extcc.guest_timer) / 1000);
    if (guest_s <= 0)
        return;
    std::snprintf(text, sizeof text, "%ds (~%dh%dm)", guest_s, guest_s / 3600, guest_s % 3600 / 60);
    add_reply_text("GuestNextCheck", text);
}

void add_schedule(const timer_host &host) {
    const reply_table table;
    add_reply_text("mac", host.mac);
    add_reply_int("num", static_cast<int>(host.rules.size()));
    add_reply_int("internet", host.action);
    const reply_array rules("rules");
    for (const schedule_rule &rule : host.rules) {
        const reply_table rule_table;
        add_reply_text("start", rule.start);
        add_reply_text("end", rule.end);
        add_reply_int("enable", rule.enable);
        add_reply_int("weekday", rule.mode);
    }
}

void add_parent_rule_dump(const parent_rule &rule) {
    const reply_table table;
    add_reply_text("mac", rule.mac);
    if (rule.flags & parent_rate) {
        add_signed("dsbandwidth", rule.down_limit);
        add_signed("usbandwidth", rule.up_limit);
    }
    if (rule.flags & parent_internet)
        add_signed("internetaccess", rule.internet);
    add_exec(rule);
}

}  // namespace

void extcc_dump(const cJSON *) {
    add_times();
    {
        const reply_array schedules("TimeRules");
        for (const timer_host &host : g_ctx.extcc.timer_hosts)
            add_schedule(host);
    }
    const reply_array rules("ParentRules");
    for (const parent_rule &rule : g_ctx.extcc.parent_rules)
        add_parent_rule_dump(rule);
}

}  // namespace arvok
