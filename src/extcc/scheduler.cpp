// The timers that apply the rules to the platform: schedules at every boundary; blocking and rate limits, and
// the guest network, after a command.

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "common/clock.h"
#include "common/files.h"
#include "common/text.h"
#include "context.h"
#include "extcc/rules.h"
#include "extcc/schedule.h"

namespace arvok {
namespace {

constexpr int retry_clock_s = 60;
constexpr int guest_file_max = 128;
constexpr std::time_t day_s = 86400;

// --- hosts ---

// Decided once, when the clock is set; the day of the schedules is the same either way.
bool is_shifted(std::time_t now) {
    std::int32_t &state = g_ctx.extcc.tz_offset_state;
    if (state == -1 && now > clock_set_after)
        state = need_offset(now);
    return state == 1;
}

void set_access(qzcap_laninfo &host, std::int32_t access) {
    if (host.internetaccess == access)
        return;
    host.internetaccess = access;
    qzcap_set_laninfo(host.index, &host, nullptr);
}

void log_next_check(const char *function, int line, int delay) {
    qzcap_printf("%s (%d): extcc next check is %ds (~%dh%dm) later\n", function, line, delay, delay / 3600,
                 delay % 3600 / 60);
}

// Counts from the instant that was evaluated: the platform has taken its time since then, and a boundary that
// was passed meanwhile must still be seen.
void extcc_update_timer(const rule_instant &at, std::time_t evaluated) {
    const auto passed = static_cast<int>(std::clamp<std::time_t>(wall_clock() - evaluated, 0, day_s));
    const int delay = std::max(1, _get_next_action(g_ctx.extcc.timer_hosts, at) - passed);
    log_next_check("extcc_update_timer", __LINE__, delay);
    uloop_timeout_set(&g_ctx.extcc.lanhost_timer, delay * 1000);
}

void extcc_lanhost_cb(uloop_timeout *) {
    const std::time_t now = wall_clock();
    if (now < clock_set_after) {
        uloop_timeout_set(&g_ctx.extcc.lanhost_timer, retry_clock_s * 1000);
        return;
    }
    const rule_instant at = rule_instant_at(now, is_shifted(now));
    for (timer_host &host : g_ctx.extcc.timer_hosts)
        host.action = _now_in_range(host, at) ? access_scheduled : access_unrestricted;
    laninfos_ptr hosts;
    list_hosts(hosts);
    for_each_host(hosts, [](qzcap_laninfo &host) {
        if (const timer_host *scheduled = _find_timer_host(host.mac))
            set_access(host, scheduled->action);
        if (g_ctx.extcc.pending_mac[0] && _strcasecmp(g_ctx.extcc.pending_mac, host.mac) == 0)
            set_access(host, access_unrestricted);
    });
    extcc_update_timer(at, now);
}

bool apply_parent_rule(const parent_rule &rule, qzcap_laninfo &host) {
    if (rule.flags & parent_rate) {
        host.uplimit = static_cast<std::int32_t>(rule.up_limit);
        host.downlimit = static_cast<std::int32_t>(rule.down_limit);
    }
    if (rule.flags & parent_internet)
        host.internetaccess = static_cast<std::int32_t>(rule.internet);
    return qzcap_set_laninfo(host.index, &host, nullptr) == 0;
}

void extcc_parent_cb(uloop_timeout *) {
    if (g_ctx.extcc.parent_rules.empty())
        return;
    laninfos_ptr hosts;
    list_hosts(hosts);
    std::unordered_map<std::string, qzcap_laninfo *> by_mac;
    for_each_host(hosts, [&by_mac](qzcap_laninfo &host) {
        if (host.mac)
            by_mac.emplace(host.mac, &host);
    });
    for (parent_rule &rule : g_ctx.extcc.parent_rules) {
        const auto found = by_mac.find(rule.mac);
        rule.applied = found != by_mac.end() && apply_parent_rule(rule, *found->second) ? rule.flags : 0;
    }
}

// --- guest network ---

guest_schedule read_guest_schedule() {
    char text[guest_file_max + 1] = "", enable[8] = "", last_time[8] = "";
    long long start = 0;
    _read_file(rule_path(guest_timer_file).c_str(), text, guest_file_max);
    std::sscanf(text, "%*[^\t]\t%7[^\t]\t%*[^\t]\t%lld\t%*[^\t]\t%7[^\n]", enable, &start, last_time);
    return {std::atoi(enable), start, std::atoi(last_time)};
}

void _set_guest_ssid_state(bool on) {
    const wifi_ap_ptr ap(qzcap_wifi_ap_get(QZCAP_AP_2G, static_cast<std::uint32_t>(guest_index())));
    const char *wanted = on ? "yes" : "no";
    if (!ap || _strcmp(ap->enable, on ? "no" : "yes") != 0)
        return;
    replace_text(ap->enable, wanted);
    qzcap_wifi_ap_set(QZCAP_AP_2G, ap->index, ap.get(), nullptr);
}

void extcc_guestssid_cb(uloop_timeout *) {
    const guest_action action = guest_action_at(read_guest_schedule(), wall_clock());
    _set_guest_ssid_state(action.on);
    if (action.delay <= 0)
        return;
    // A timer reaches 24 days; whoever set the clock that far back gets an early check.
    const int delay = static_cast<int>(std::min<std::int64_t>(action.delay, INT_MAX / 1000));
    log_next_check("extcc_guestssid_cb", __LINE__, delay);
    uloop_timeout_set(&g_ctx.extcc.guest_timer, delay * 1000);
}

}  // namespace

void extcc_init() {
    g_ctx.extcc.tz_offset_state = -1;
    g_ctx.extcc.lanhost_timer.cb = extcc_lanhost_cb;
    g_ctx.extcc.parent_timer.cb = extcc_parent_cb;
    g_ctx.extcc.guest_timer.cb = extcc_guestssid_cb;
    load_rules();
}

void extcc_run() {
    extcc_lanhost_cb(&g_ctx.extcc.lanhost_timer);
}

void extcc_done() {
    uloop_timeout_cancel(&g_ctx.extcc.lanhost_timer);
    uloop_timeout_cancel(&g_ctx.extcc.parent_timer);
    uloop_timeout_cancel(&g_ctx.extcc.guest_timer);
    clear_rules();
}

}  // namespace arvok
