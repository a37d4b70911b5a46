#include "access/scheduler.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr int apply_delay_ms = 200;
constexpr int retry_clock_ms = 60000;
constexpr std::time_t day_s = 86400;

// The hosts that the platform lists; none when it does not.
platform::host_list list_hosts() {
    auto hosts = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
    return hosts ? std::move(*hosts) : platform::host_list();
}

void set_access(qzcap_laninfo &host, internet_access access) {
    if (host.internetaccess == access)
        return;
    host.internetaccess = access;
    qzcap_set_laninfo(host.index, &host, nullptr);
}

bool apply(const restriction &entry, qzcap_laninfo &host) {
    if (entry.kinds & restricts_rate) {
        host.uplimit = static_cast<std::int32_t>(entry.up_limit);
        host.downlimit = static_cast<std::int32_t>(entry.down_limit);
    }
    if (entry.kinds & restricts_internet)
        host.internetaccess = static_cast<std::int32_t>(entry.internet);
    return qzcap_set_laninfo(host.index, &host, nullptr) == 0;
}

}  // namespace

scheduler::scheduler(schedules &schedules, restrictions &restrictions, wall_clock clock)
    : schedules_(schedules),
      restrictions_(restrictions),
      clock_(clock),
      schedule_timer_(bind<&scheduler::apply_schedules>(*this)),
      restriction_timer_(bind<&scheduler::apply_restrictions>(*this)) {}

void scheduler::apply_schedules_soon() {
    schedule_timer_.arm(apply_delay_ms);
}

void scheduler::apply_restrictions_soon() {
    restriction_timer_.arm(apply_delay_ms);
}

// The day of the schedules is the same either way.
bool scheduler::is_shifted(std::time_t now) {
    if (!keeps_utc_ && now > clock_set_after)
        keeps_utc_ = keeps_utc(now);
    return keeps_utc_.value_or(false);
}

void scheduler::apply_schedules() {
    const std::time_t now = clock_();
    if (now < clock_set_after) {
        schedule_timer_.arm(retry_clock_ms);
        return;
    }
    const rule_instant at = rule_instant_at(now, is_shifted(now));
    for (host_schedule &host : schedules_.hosts())
        host.action = is_in_range(host, at) ? scheduled : unrestricted;
    const std::string &to_free = schedules_.host_to_free();
    for (qzcap_laninfo *host : list_hosts()) {
        if (const host_schedule *schedule = schedules_.find(*host))
            set_access(*host, schedule->action);
        if (!to_free.empty() && same_ignoring_case(to_free, view_of(host->mac)))
            set_access(*host, unrestricted);
    }
    arm_next_check(at, now);
}

// Counts from the instant that was evaluated: the platform has taken its time since then, and a boundary that
// was passed meanwhile must still be seen.
void scheduler::arm_next_check(const rule_instant &at, std::time_t evaluated) {
    const auto passed = static_cast<int>(std::clamp<std::time_t>(clock_() - evaluated, 0, day_s));
    const int delay = std::max(1, seconds_to_next_check(schedules_.hosts(), at) - passed);
    log_printf("extcc_update_timer (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
               delay / 3600, delay % 3600 / 60);
    schedule_timer_.arm(delay * 1000);
}

void scheduler::apply_restrictions() {
    if (restrictions_.entries().empty())
        return;
    const platform::host_list hosts = list_hosts();
    std::unordered_map<std::string_view, qzcap_laninfo *> by_mac;
    for (qzcap_laninfo *host : hosts)
        if (host->mac)
            by_mac.emplace(host->mac, host);
    for (restriction &entry : restrictions_.entries()) {
        const auto found = by_mac.find(entry.mac);
        entry.applied = found != by_mac.end() && apply(entry, *found->second) ? entry.kinds : 0;
    }
}

}  // namespace arvok::access
