#include "extcc/schedule.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/clock.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

constexpr std::int64_t day_s = 86400;
constexpr std::int64_t cst_offset = 28800;
constexpr std::int64_t thursday = 4;  // the epoch's first day, Monday being 1

// A rule on the day of an instant.
struct rule_day {
    std::int64_t start, end;
};

rule_day rule_on(const schedule_rule &rule, const rule_instant &at) {
    return {_hhmm_to_time(at, rule.start), _hhmm_to_time(at, rule.end)};
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

bool is_in_range(const schedule_rule &rule, const rule_instant &at) {
    const rule_day day = rule_on(rule, at);
    if (!rule.enable || day.start == day.end)
        return false;
    return day.start < day.end ? is_same_day_in_range(rule, day, at) : is_overnight_in_range(rule, day, at);
}

// Seconds until one rule begins or ends to hold today; not above 0 when it will do neither.
std::int64_t seconds_to_boundary(const schedule_rule &rule, const rule_day &day, const rule_instant &at) {
    const std::int64_t to_start = day.start - at.now, to_end = day.end - at.now;
    if (rule.mode == 0 && day.start > day.end)
        return to_end > 0 ? to_end : to_start;
    if (rule.mode == 0 || rule.mode == at.weekday)
        return to_start > 0 ? to_start : to_end;
    if (day.start > day.end && next_day(rule.mode) == at.weekday)
        return to_end;  // of the night that began on the rule's day
    return 0;
}

}  // namespace

rule_instant rule_instant_at(std::time_t t, bool shifted) {
    const std::int64_t cst = static_cast<std::int64_t>(t) + cst_offset;
    const std::int64_t day = cst / day_s;
    rule_instant at;
    at.now = shifted ? cst : static_cast<std::int64_t>(t);
    at.midnight = at.now - cst % day_s;
    at.weekday = static_cast<int>((day + thursday - 1) % 7) + 1;
    return at;
}

std::int64_t _hhmm_to_time(const rule_instant &at, const char *text) {
    const char *colon = std::strchr(text, ':');
    if (!colon)
        return 0;
    return at.midnight + std::int64_t{std::atoi(text)} * 3600 + std::int64_t{std::atoi(colon + 1)} * 60;
}

bool _now_in_range(const timer_host &host, const rule_instant &at) {
    for (const schedule_rule &rule : host.rules) {
        if (!is_in_range(rule, at))
            continue;
        qzcap_printf("%s (%d): extcc mac %s, now %d, inrange (%u/%s/%s)\n", "_now_in_range", __LINE__,
                     host.mac, static_cast<int>(at.now), rule.mode, rule.start, rule.end);
        return true;
    }
    return false;
}

int _get_next_action(const std::list<timer_host> &hosts, const rule_instant &at) {
    std::int64_t delay = day_s + 1 - (at.now - at.midnight);
    for (const timer_host &host : hosts) {
        for (const schedule_rule &rule : host.rules) {
            const rule_day day = rule_on(rule, at);
            if (!rule.enable || day.start == day.end)
                continue;
            const std::int64_t own = seconds_to_boundary(rule, day, at);
            if (own > 0 && own < delay)
                delay = own;
            if (at.now == day.start || at.now == day.end)
                delay = 1;
            qzcap_printf("%s (%d): extcc %s now %d (%d - %d) min %ds\n", "_get_next_action", __LINE__,
                         host.mac, static_cast<int>(at.now), static_cast<int>(day.start),
                         static_cast<int>(day.end), static_cast<int>(delay));
        }
    }
    return static_cast<int>(delay);
}

guest_action guest_action_at(const guest_schedule &schedule, std::time_t t) {
    if (schedule.last_time == guest_forever)
        return {schedule.enable != 0, 0};
    const std::int64_t now = t, start = schedule.start;
    std::int64_t end;
    if (__builtin_add_overflow(start, std::int64_t{schedule.last_time} * 60, &end))
        end = start;  // no such schedule is ever written
    if (now < start)
        return {false, start - now};
    return now < end ? guest_action{true, end - now} : guest_action{false, 0};
}

const char *cst_text(std::time_t t) {
    static char text[64];
    text[0] = '\0';
    if (const std::tm *tm = _cst_localtime(t))
        std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d", tm->tm_year + 1900, tm->tm_mon + 1,
                      tm->tm_mday, tm->tm_hour, tm->tm_min);
    return text;
}

}  // namespace arvok
