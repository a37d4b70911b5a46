#pragma once
/// What other apps set for the hosts on the LAN (access schedules, blocking, rate limits) and for the guest
/// network, kept in files and applied to the platform's records.
///
///     host_id.h          which host a rule is about
///     schedule.h         when a rule holds and when to look again: functions of (rules, now)
///     schedules.h        the access schedules, as values and as the lines of their file
///     restrictions.h     blocking and rate limits, likewise
///     hosts_to_free.h    the hosts that are to get their access back, likewise
///     rule_store.h       all these in memory and in their files
///     decision.h         what the platform's records should be: a function of (rules, hosts, now)
///     enforcer.h         makes them so
///     retry.h            when to try again what was refused
///     guest_network.h    the guest network and its commands
///     guest_files.h      its files
///     guest_interface.h  its interface on the platform
///     host_commands.h    the commands about LAN hosts (lan_hosts.cpp: what is told of each)
///     texts.h            the texts of commands and files
///     outcome.h          how a command ended, in its reply
///
/// Everything runs on the loop thread. Times of day are China Standard Time, whatever the device's time zone.

#include <string>
#include <string_view>

#include "access/enforcer.h"
#include "access/guest_network.h"
#include "access/host_commands.h"
#include "access/rule_store.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/clock_watch.h"
#include "base/json.h"

namespace arvok::access {

class rules {
  public:
    /// Loads the rules from their files in `folder`, which ends with a slash.
    rules(wall_clock clock, const std::string &folder);

    /// Applies the schedules and the guest network's closing time for the first time, and sees to the next.
    void start();
    /// A host has come: in 200 ms the rules are applied, also blocking and rate limits.
    void host_appeared() { enforcer_.enforce_all_soon(); }
    /// The clock was set, which is noticed from the start on: schedules and closing time are looked at again.
    void look_at_clock();

    /// Runs a command and adds its fields to the reply. False when it is none of these commands.
    bool run(std::string_view command, json::view message, bus_message &reply);

  private:
    struct command_row;
    static const command_row commands[];

    rule_store store_;
    enforcer enforcer_;
    guest_network guest_;
    host_commands hosts_;
    clock_watch clock_set_;
};

}  // namespace arvok::access
