#pragma once
/// What other apps set for the hosts on the LAN (access schedules, blocking, rate limits) and for the guest
/// network, kept in files and applied to the platform's records.
///
/// schedule.h         when a rule holds and when to look again: functions of (rules, now) without a clock
/// schedules.h        the access schedules in memory and in their file
/// restrictions.h     blocking and rate limits in memory and in their file
/// scheduler.h        applies both to the platform
/// guest_network.h    the guest network, its files and commands
/// guest_interface.h  its interface on the platform
/// host_commands.h    the commands about LAN hosts (lan_hosts.cpp: what is told of each)
/// texts.h            the texts of commands and files
/// outcome.h          how a command ended, in its reply
///
/// Everything runs on the loop thread. Times of day are China Standard Time, whatever the device's time zone.

#include <string>
#include <string_view>

#include "access/guest_network.h"
#include "access/host_commands.h"
#include "access/restrictions.h"
#include "access/scheduler.h"
#include "access/schedules.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/json.h"

namespace arvok::access {

class rules {
  public:
    /// Loads the rules from their files in `folder`, which ends with a slash.
    rules(wall_clock clock, const std::string &folder);

    /// Applies the schedules for the first time, which arms the timer for the next.
    void start() { scheduler_.apply_schedules(); }
    /// Blocking and rate limits are applied again in 200 ms.
    void host_appeared() { scheduler_.apply_restrictions_soon(); }
    /// The platform can list hosts again: all rules are applied again in 200 ms.
    void hosts_returned() {
        scheduler_.apply_restrictions_soon();
        scheduler_.apply_schedules_soon();
    }

    /// Runs a command and adds its fields to the reply. False when it is none of these commands.
    bool run(std::string_view command, json::view message, bus_message &reply);

  private:
    struct command_row;
    static const command_row commands[];

    schedules schedules_;
    restrictions restrictions_;
    scheduler scheduler_;
    guest_network guest_;
    host_commands hosts_;
};

}  // namespace arvok::access
