#include "access/schedule.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/log.h"

namespace arvok::access {
namespace {

constexpr std::int64_t day_s = 86400;
constexpr std::int64_t thursday = 4;  // the epoch's first day, Monday being 1

// A rule on the day of an instant.
struct rule_day {
    std::int64_t start, end;
};

// What a text of a time of day stands for on the day of the instant; 0 when it holds no ':'.
std::int64_t time_on(const rule_instant &at, const time_of_day &time) {
    const char *const colon = std::strchr(time.c_str(), ':');
    if (!colon)
        return 0;
    return at.midnight + std::int64_t{std::atoi(time.c_str())} * 3600 +
           std::int64_t{std::atoi(colon + 1)} * 60;
}

rule_day rule_on(const schedule_rule &rule, const rule_instant &at) {
    return {time_on(at, rule.start), time_on(at, rule.end)};
}

// The day after `mode`'s, counted as it: Sunday's is Monday.
int next_day(int mode) {
    return mode % 7 + 1;
}

bool is_same_day_in_range(const schedule_rule &rule, const rule_day &day, const rule_instant &at) {
    return (rule.mode == 0 || rule.mode % 7 == at.weekday % 7) && day.start <= at.now && at.now < day.end;
}

bool is_overnight_in_range(const schedule_rule &rule, const rule_day &day, const rule_instant &at) {
    if (rule.mode == 0)
        return (day.start <= at.now && at.now <= day.end + day_s - 1) ||
               (day.start - day_s <= at.now && at.now < day.end);
    if (rule.mode == at.weekday)
        return day.start <= at.now;
    return (rule.mode + 1) % 7 == at.weekday % 7 && at.now < day.end;
}

bool holds(const schedule_rule &rule, const rule_instant &at) {
    const rule_day day = rule_on(rule, at);
    if (!rule.enable || day.start == day.end)
        return false;
    return day.start < day.end ? is_same_day_in_range(rule, day, at) : is_overnight_in_range(rule, day, at);
}

// Seconds until one rule begins or ends to hold today; not above 0 when it will do neither.
std::int64_t seconds_to_boundary(const schedule_rule &rule, const rule_day &day, const rule_instant &at) {
    const std::int64_t to_start = day.start - at.now, to_end = day.end - at.now;
    if (rule.mode == 0 && day.start > day.end) {
        // Minutes above 59 may carry yesterday's start into today.
        if (const std::int64_t to_late_start = to_start - day_s; to_late_start > 0)
            return to_end > 0 ? std::min(to_late_start, to_end) : to_late_start;
        return to_end > 0 ? to_end : to_start;
    }
    if (rule.mode == 0 || rule.mode == at.weekday)
        return to_start > 0 ? to_start : to_end;
    if (day.start > day.end && next_day(rule.mode) == at.weekday)
        return to_end;  // of the night that began on the rule's day
    return 0;
}

}  // namespace

rule_instant rule_instant_at(std::time_t t, bool shifted) {
    const std::int64_t china = std::int64_t{t} + china_offset_s;
    const std::int64_t day = china / day_s;
    rule_instant at;
    at.now = shifted ? china : std::int64_t{t};
    at.midnight = at.now - china % day_s;
    at.weekday = static_cast<int>((day + thursday - 1) % 7) + 1;
    return at;
}

bool is_in_range(const host_schedule &host, const rule_instant &at) {
    for (auto rule = host.rules.rbegin(); rule != host.rules.rend(); ++rule) {
        if (!holds(*rule, at))
            continue;
        log_printf("_now_in_range (%d): extcc mac %s, now %lld, inrange (%u/%s/%s)\n", __LINE__,
                   host.mac.c_str(), static_cast<long long>(at.now), rule->mode, rule->start.c_str(),
                   rule->end.c_str());
        return true;
    }
    return false;
}

int seconds_to_next_check(const std::list<host_schedule> &hosts, const rule_instant &at) {
    std::int64_t delay = day_s + 1 - (at.now - at.midnight);
    for (const host_schedule &host : hosts) {
        for (auto rule = host.rules.rbegin(); rule != host.rules.rend(); ++rule) {
            const rule_day day = rule_on(*rule, at);
            if (!rule->enable || day.start == day.end)
                continue;
            const std::int64_t own = seconds_to_boundary(*rule, day, at);
            if (own > 0 && own < delay)
                delay = own;
            if (at.now == day.start || at.now == day.end)
                delay = 1;
            log_printf("_get_next_action (%d): extcc %s now %lld (%lld - %lld) min %ds\n", __LINE__,
                       host.mac.c_str(), static_cast<long long>(at.now), static_cast<long long>(day.start),
                       static_cast<long long>(day.end), static_cast<int>(delay));
        }
    }
    return static_cast<int>(delay);
}

guest_action guest_action_at(const guest_schedule &schedule, std::time_t t) {
    if (schedule.last_time == guest_forever)
        return {schedule.enable, 0};
    const std::int64_t now = t, start = schedule.start;
    std::int64_t end;
    if (__builtin_add_overflow(start, std::int64_t{schedule.last_time} * 60, &end))
        end = start;  // no such schedule is ever written
    if (now < start)
        return {false, start - now};
    return now < end ? guest_action{true, end - now} : guest_action{false, 0};
}

}  // namespace arvok::access
