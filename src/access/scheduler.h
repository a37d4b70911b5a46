#pragma once
/// Applies the rules of LAN hosts to the platform's records: schedules at every boundary, blocking and rate
/// limits when somebody asks for it.

#include <ctime>
#include <optional>

#include "access/restrictions.h"
#include "access/schedules.h"
#include "base/clock.h"
#include "base/loop.h"

namespace arvok::access {

class scheduler {
  public:
    scheduler(schedules &schedules, restrictions &restrictions, wall_clock clock);

    /// Applies the schedules, and arms the timer for the next boundary; a clock that is not set yet is looked
    /// at again in a minute.
    void apply_schedules();
    /// In 200 ms.
    void apply_schedules_soon();
    void apply_restrictions_soon();

    /// Milliseconds until the schedules are applied next.
    int until_schedules() { return schedule_timer_.remaining(); }

  private:
    bool is_shifted(std::time_t now);
    void arm_next_check(const rule_instant &at, std::time_t evaluated);
    void apply_restrictions();

    schedules &schedules_;
    restrictions &restrictions_;
    const wall_clock clock_;
    std::optional<bool> keeps_utc_;  ///< decided once, when the clock is set
    timer schedule_timer_, restriction_timer_;
};

}  // namespace arvok::access
