#pragma once
/// When the agent first saw a LAN host active.
///
/// Hosts that change their MACs must not fill the memory of a device that runs for years: of those that are
/// not active any more, the ones longest not asked for are forgotten.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"

namespace arvok::gateway {

class first_seen {
  public:
    /// Hosts that are kept at least: those of a large home, and their guests of some weeks.
    static constexpr std::size_t hosts_max = 1024;

    explicit first_seen(wall_clock now) : now_(now) {}
    first_seen(const first_seen &) = delete;
    first_seen &operator=(const first_seen &) = delete;

    /// Seconds since the epoch; now, for a MAC not yet known. The case of its digits does not matter.
    std::time_t of(std::string_view mac);
    /// All active hosts have been asked for, so many: they stay. Beyond hosts_max the others are forgotten.
    void forget_others(std::size_t active);

  private:
    struct host {
        std::string mac;  ///< in upper case
        std::time_t time;
        std::uint64_t asked;  ///< the number of the last question
    };

    wall_clock now_;
    /// By MAC. In one piece: a thousand of their own, made while reports are written, would keep the reports'
    /// memory from being given back.
    std::vector<host> hosts_;
    std::uint64_t questions_ = 0;
};

}  // namespace arvok::gateway
