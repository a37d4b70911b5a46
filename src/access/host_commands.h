#pragma once
/// The commands about LAN hosts: which there are, the rules that are set for them (access schedules,
/// blocking, rate limits), and the dump of all rules.

#include "access/guest_network.h"
#include "access/restrictions.h"
#include "access/scheduler.h"
#include "access/schedules.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/json.h"

namespace arvok::access {

class host_commands {
  public:
    host_commands(schedules &schedules, restrictions &restrictions, scheduler &scheduler,
                  guest_network &guest, wall_clock clock)
        : schedules_(schedules),
          restrictions_(restrictions),
          scheduler_(scheduler),
          guest_(guest),
          clock_(clock) {}

    /// Commands: each adds its fields to the reply.
    void get_hosts(json::view message, bus_message &reply);
    void set_schedule(json::view message, bus_message &reply);
    void get_schedule(json::view message, bus_message &reply);
    void set_internet(json::view message, bus_message &reply);
    void get_internet(json::view message, bus_message &reply);
    void set_bandwidth(json::view message, bus_message &reply);
    void get_bandwidth(json::view message, bus_message &reply);
    void dump(json::view message, bus_message &reply);

  private:
    void save_and_apply_restrictions(bus_message &reply);
    void add_times(bus_message &reply);

    schedules &schedules_;
    restrictions &restrictions_;
    scheduler &scheduler_;
    guest_network &guest_;
    const wall_clock clock_;
};

}  // namespace arvok::access
