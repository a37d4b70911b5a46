#pragma once
/// Makes the platform's records of the LAN hosts what the rules want, and is the only one that writes them
/// for the rules' sake. Only differences are written. A record that the platform refuses is written again
/// when its time has come, whatever makes the enforcer look before, and at once when the rules want something
/// else of it. Many writes take turns with everybody else on the loop. The platform's list and the rules'
/// files are looked at again likewise, until they can be read.

#include <cstdint>
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
    /// The same in 200 ms, or that long after the last of several calls, so that one look serves many
    /// changes; it is no more than a second after the first.
    void enforce_soon();
    /// The same with blocking and rate limits.
    void enforce_all_soon();

    /// Milliseconds until the next look that is foreseen.
    int until_next() { return next_.remaining(); }

  private:
    /// A record that is not yet what it should be.
    struct attempt {
        host_id id;
        host_change change;
        retry when;
    };
    using attempts = std::unordered_map<std::uint32_t, attempt>;  // by the record's index

    std::optional<rule_instant> instant(std::time_t now);
    bool is_needed() const;
    void carry_out(const decision &made, platform::host_list &records, const std::vector<listed_host> &hosts);
    bool settle(const decision &made, const std::vector<listed_host> &hosts);
    void arm(const decision &made, std::time_t evaluated, bool has_list);

    rule_store &store_;
    const wall_clock clock_;
    std::optional<bool> keeps_utc_;  ///< decided once, when the clock is set
    attempts attempts_;
    std::int64_t written_ms_ = 0;   ///< time of the writes so far when some are left to the loop's next round
    std::optional<retry> unknown_;  ///< for the list and the files
    timer next_, soon_, latest_;
    next_round rest_;
};

}  // namespace arvok::access
