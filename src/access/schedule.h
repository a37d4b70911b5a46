#pragma once
/// When a schedule holds and when to look at it again. There is no clock in here: everything is a function of
/// the rules and an instant, so that it can be asked for any instant in any time zone.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace arvok::access {

/// What the platform's internet-access field of a host is set to.
enum internet_access : std::uint8_t {
    not_evaluated = 0,
    scheduled = 1,     ///< a range of the host's schedule holds now
    unrestricted = 2,  ///< none does; and no restriction at all
};

/// "HH:MM" or "H:MM", as received. There are thousands: it has no memory beside its own.
class time_of_day {
  public:
    static constexpr std::size_t max = 7;  ///< bytes kept of it, in the files too

    time_of_day(std::string_view text) { text.copy(text_, max); }
    time_of_day(const char *text) : time_of_day(std::string_view(text)) {}
    const char *c_str() const { return text_; }

  private:
    char text_[max + 1] = {};
};

struct schedule_rule {
    std::uint8_t enable;
    std::uint8_t mode;  ///< 0 every day, 1 Monday to 7 Sunday
    time_of_day start;
    time_of_day end;
};

/// The schedule of one host.
struct host_schedule {
    std::string mac;                         ///< as it was given
    internet_access action = not_evaluated;  ///< by the last evaluation
    std::vector<schedule_rule> rules{};      ///< oldest first; the newest is looked at first
    std::string lines{};                     ///< in the file, in the same order
};

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

/// Whether one of the host's rules holds; says in the log which.
bool is_in_range(const host_schedule &host, const rule_instant &at);

/// Seconds from the instant to the next boundary of all rules, 1 to 86401: at the latest one second past
/// midnight. Exactly on a boundary it is one second.
int seconds_to_next_check(const std::list<host_schedule> &hosts, const rule_instant &at);

/// The guest network's closing time, as its file has it.
struct guest_schedule {
    bool enable;
    std::int64_t start;      ///< seconds since the epoch
    std::int32_t last_time;  ///< minutes; guest_forever: no closing time
};
constexpr std::int32_t guest_forever = -1111;

struct guest_action {
    bool on;
    std::int64_t delay;  ///< seconds until it changes; 0: never
};

guest_action guest_action_at(const guest_schedule &schedule, std::time_t now);

}  // namespace arvok::access
