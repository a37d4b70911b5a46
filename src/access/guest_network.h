#pragma once
/// The guest network: one 2.4 GHz interface with the platform's guest mark, and the commands about it.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "access/guest_files.h"
#include "access/retry.h"
#include "access/schedule.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/json.h"
#include "base/loop.h"

namespace arvok::access {

class guest_network {
  public:
    /// The files are in `folder`, which ends with a slash.
    guest_network(const std::string &folder, wall_clock clock);

    /// Commands: each adds its fields to the reply.
    void set(json::view message, bus_message &reply);
    void get(json::view message, bus_message &reply);
    void remove(json::view message, bus_message &reply);
    void set_closing(json::view message, bus_message &reply);

    /// Opens or closes it as its closing time says, if it has one, and sees to the next time: its change, the
    /// next try when platform or disk refuse, or a minute later while the clock is not set.
    void follow_times();
    /// The clock was set: the same while there is anything to come. A closing time that has done its work
    /// leaves the network to whoever has changed it since.
    void clock_was_set();

    /// Milliseconds until it is opened or closed; below 0: not foreseen.
    int until_change() { return timer_.remaining(); }

  private:
    void look_again(std::int64_t seconds);
    void try_again(std::int64_t change, bool was_tried = true);
    bool contradicts(const guest_schedule &schedule, bool enable, bool is_enabled) const;

    const guest_files files_;
    const wall_clock clock_;
    timer timer_;                   ///< opens and closes the network
    std::optional<retry> refused_;  ///< it is to be opened or closed, and platform or disk would not
};

}  // namespace arvok::access
