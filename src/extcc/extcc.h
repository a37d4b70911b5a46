#pragma once
/// The extended control commands: what other apps set for the hosts on the LAN (access schedules, blocking,
/// rate limits) and for the guest network, kept in files and applied to the platform's records.
///
/// rules.cpp       the rules in memory and in their files
/// schedule.cpp    when a rule holds and when to look again: functions of (rules, now) without a clock
/// scheduler.cpp   the three timers that apply the rules
/// lan_hosts.cpp   the list of LAN hosts
/// host_rules.cpp  commands that set and tell the rules of LAN hosts
/// guest_wifi.cpp  commands about the guest network
///
/// Everything runs on the loop thread. Times of day are China Standard Time, whatever the device's time zone.

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

#include "common/json.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

/// A host's MAC as a rule keeps it; what a command gives beyond that is cut.
constexpr std::size_t rule_mac_size = 16;

/// What the platform's internet-access field of a host is set to.
enum internet_access : std::uint8_t {
    access_scheduled = 1,     ///< a range of the host's schedule holds now
    access_unrestricted = 2,  ///< none does; and no restriction at all
};

struct schedule_rule {
    std::uint8_t enable;
    std::uint8_t mode;  ///< 0 every day, 1 Monday to 7 Sunday
    char start[8];      ///< "HH:MM" or "H:MM", as received
    char end[8];
};

/// The schedule of one host.
struct timer_host {
    char mac[rule_mac_size];
    std::uint8_t action;             ///< internet_access
    std::list<schedule_rule> rules;  ///< newest first
};

enum parent_flag : std::uint32_t { parent_rate = 1, parent_internet = 2 };

/// Blocking and rate limits of one host.
struct parent_rule {
    char mac[rule_mac_size];
    std::uint32_t flags;       ///< parent_flag bits: what is set
    std::uint32_t internet;    ///< with parent_internet
    std::uint32_t up_limit;    ///< with parent_rate
    std::uint32_t down_limit;  ///< with parent_rate
    std::uint32_t applied;     ///< the flags that the platform took last; 0: none yet
};

struct extcc_state {
    uloop_timeout lanhost_timer;          ///< evaluates the schedules
    uloop_timeout parent_timer;           ///< applies blocking and rate limits
    uloop_timeout guest_timer;            ///< opens and closes the guest network
    std::list<timer_host> timer_hosts;    ///< newest first
    std::list<parent_rule> parent_rules;  ///< newest first
    std::int32_t tz_offset_state;         ///< -1 undecided, 1 the device keeps UTC, 0 it keeps local time
    char pending_mac[rule_mac_size];  ///< host whose schedule was taken away and whose access is to be freed

    /// The newest node of each MAC, by its upper-case text.
    std::unordered_map<std::string, timer_host *> timer_index;
    std::unordered_map<std::string, parent_rule *> parent_index;
};

// --- life ---

/// Installs the timers and loads the rule files. Once, before extcc_run.
void extcc_init();
/// Evaluates the schedules for the first time, which arms the timer for the next.
void extcc_run();
/// Cancels the timers and releases the rules.
void extcc_done();

/// The guest network's interface index, from its file; 0 when there is none.
int guest_index();

// --- commands: each adds its fields to the reply that is being built (arvok/app_messages.h) ---

void get_lanhost_info(const cJSON *root);
void set_lanhost_timer(const cJSON *root);
void get_lanhost_timer(const cJSON *root);
void set_lanhost_internet(const cJSON *root);
void get_lanhost_internet(const cJSON *root);
void set_lanhost_bandwidth(const cJSON *root);
void get_lanhost_bandwidth(const cJSON *root);
void extcc_dump(const cJSON *root);
void set_guest_wifi(const cJSON *root);
void get_guest_wifi(const cJSON *root);
void delete_guest_wifi(const cJSON *root);
void set_guest_wifi_close_timer(const cJSON *root);

}  // namespace arvok
