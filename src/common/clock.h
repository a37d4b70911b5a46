#pragma once
/// Time. Wall-clock times that a peer sees are China Standard Time (UTC + 8 h), whatever the device's time
/// zone.

#include <ctime>

namespace arvok {

/// Seconds since the epoch. What the agent does at a time of day asks here and nowhere else: tests put their
/// own clock in.
extern std::time_t (*wall_clock)();

/// Broken-down China Standard Time of `t`. Static storage of the C library; valid until the next call.
std::tm *_cst_localtime(std::time_t t);

/// 1 when the device's own time zone is UTC, so that the +8 h offset has to be added to get local time; else
/// 0.
int need_offset(std::time_t t);

/// Now as the fourteen digits YYYYMMDDhhmmss (CST). Static buffer; valid until the next call.
const char *_get_time();

/// Seconds since boot; 0 if the system does not tell.
long _get_uptime();

}  // namespace arvok
