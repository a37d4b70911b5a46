#pragma once
/// The guest network: one 2.4 GHz interface with the platform's guest mark, whose index and closing time are
/// kept in files, and the commands about it.

#include <cstdint>
#include <optional>
#include <string>

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

    /// Milliseconds until it is opened or closed; below 0: not foreseen.
    int until_change() { return timer_.remaining(); }

  private:
    int index() const;
    int known_index() const;
    void remember(int index) const;
    void write_closing(int index, bool enable, std::optional<std::uint32_t> minutes, std::time_t now) const;
    guest_schedule read_closing() const;
    void add_closing(bus_message &reply) const;
    void follow_times();
    void switch_to(bool on) const;

    const std::string index_path_, closing_path_;
    const wall_clock clock_;
    timer timer_;  ///< opens and closes the network
};

}  // namespace arvok::access
