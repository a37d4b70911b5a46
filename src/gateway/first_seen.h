#pragma once
/// When the agent first saw a LAN host active.
///
/// Hosts that change their MACs must not fill the memory of a device that runs for years: beyond hosts_max
/// those longest not asked for are forgotten.

#include <cstddef>
#include <ctime>
#include <list>
#include <string>
#include <string_view>

#include "base/clock.h"

namespace arvok::gateway {

class first_seen {
  public:
    static constexpr std::size_t hosts_max = 1024;

    explicit first_seen(wall_clock now) : now_(now) {}

    /// Seconds since the epoch; now, for a MAC not yet known. The case of its digits does not matter.
    std::time_t of(std::string_view mac);

  private:
    struct host {
        std::string mac;
        std::time_t time;
    };

    wall_clock now_;
    std::list<host> hosts_;  ///< the one last asked for is the first
};

}  // namespace arvok::gateway
