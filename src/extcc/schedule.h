#pragma once
/// When a schedule holds and when to look at it again. There is no clock in here: everything is a function of
/// the rules and an instant, so that it can be asked for any instant in any time zone.

#include <cstdint>
#include <ctime>

#include "extcc/extcc.h"

namespace arvok {

/// The clock counts as set from then on (2020-06-01 00:00 UTC).
constexpr std::time_t clock_set_after = 1590969600;

/// An instant as the rules see it.
struct rule_instant {
    std::int64_t now;  ///< seconds, shifted so that a day of the schedules begins at `midnight`
    std::int64_t midnight;
    int weekday;  ///< Monday 1 to Sunday 7
};

/// The instant `t`. `shifted` adds the eight hours of China Standard Time to `now`, for a device that keeps
/// UTC; it shows in the log only.
rule_instant rule_instant_at(std::time_t t, bool shifted);

/// What a text of a time of day stands for on the day of the instant; 0 when it holds no ':'.
std::int64_t _hhmm_to_time(const rule_instant &at, const char *text);

/// Whether one of the host's rules holds; says in the log which.
bool _now_in_range(const timer_host &host, const rule_instant &at);

/// Seconds from the instant to the next boundary of all rules, 1 to 86401: at the latest one second past
/// midnight. Exactly on a boundary it is one second.
int _get_next_action(const std::list<timer_host> &hosts, const rule_instant &at);

/// The guest network's closing time, as its file has it.
struct guest_schedule {
    std::int32_t enable;
    std::int64_t start;      ///< seconds since the epoch
    std::int32_t last_time;  ///< minutes; guest_forever: no closing time
};
constexpr std::int32_t guest_forever = -1111;

struct guest_action {
    bool on;
    std::int64_t delay;  ///< seconds until it changes; 0: never
};

guest_action guest_action_at(const guest_schedule &schedule, std::time_t now);

/// "YYYY-MM-DD hh:mm" in China Standard Time; the format of the guest timer's file. Static buffer.
const char *cst_text(std::time_t t);

}  // namespace arvok
