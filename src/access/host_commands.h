#pragma once
/// The commands about LAN hosts: which there are, the rules that are set for them (access schedules,
/// blocking, rate limits), and the dump of all rules.

#include <optional>
#include <string_view>

#include "access/enforcer.h"
#include "access/guest_network.h"
#include "access/rule_store.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/json.h"

namespace arvok::access {

class host_commands {
  public:
    host_commands(rule_store &store, enforcer &enforcer, guest_network &guest, wall_clock clock)
        : store_(store), enforcer_(enforcer), guest_(guest), clock_(clock) {}

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
    /// Restrictions as a command is to leave them.
    struct draft {
        restrictions limits;
        hosts_to_free to_free;
        bool changed;
    };

    template <typename Set>
    void set_restrictions(json::view info, restriction_kind kind, bus_message &reply, Set set);
    void add_times(bus_message &reply);

    rule_store &store_;
    enforcer &enforcer_;
    guest_network &guest_;
    const wall_clock clock_;
};

}  // namespace arvok::access
