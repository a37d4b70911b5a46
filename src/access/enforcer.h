#pragma once
/// Makes the platform's records of the LAN hosts what the rules want, and is the only one that writes them
/// for the rules' sake. Only differences are written. What the platform refuses, its list of hosts too, is
/// tried again until it succeeds or is not wanted any more; so is telling the disk who is free.

#include <ctime>
#include <optional>
#include <unordered_map>
#include <vector>

#include "access/decision.h"
#include "access/retry.h"
#include "access/rule_store.h"
#include "base/clock.h"
#include "base/loop.h"
#include "platform/records.h"

namespace arvok::access {

class enforcer {
  public:
    enforcer(rule_store &store, wall_clock clock);

    /// Looks at the rules, the platform and the clock, and sees to the next time: the next boundary of a
    /// schedule, the next minute while the clock is not set, the next try.
    void enforce();
    /// The same in 200 ms, so that one look serves many changes.
    void enforce_soon();
    /// The same with blocking and rate limits.
    void enforce_all_soon();

    /// Milliseconds until the next look that is foreseen.
    int until_next() { return next_.remaining(); }

  private:
    using retries = std::unordered_map<host_id, retry>;

    std::optional<rule_instant> instant(std::time_t now);
    bool is_needed() const;
    void carry_out(const decision &made, platform::host_list &records, const std::vector<listed_host> &hosts,
                   retries &refused) const;
    void settle(const decision &made, const std::vector<listed_host> &hosts, retries &refused);
    retry &next_try(retries &refused, const host_id &id) const;
    void arm(const decision &made, std::time_t evaluated);

    rule_store &store_;
    const wall_clock clock_;
    std::optional<bool> keeps_utc_;  ///< decided once, when the clock is set
    retries refused_;                ///< by host; that of the empty MAC is for the list and for the disk
    timer next_, soon_;
};

}  // namespace arvok::access
