#pragma once
/// Time. Wall-clock times that a peer sees are China Standard Time (UTC + 8 h), whatever the device's time
/// zone.

#include <cstdint>
#include <ctime>
#include <string>

namespace arvok {

/// Seconds since the epoch. A module that acts at a time of day is given its clock, so that tests can choose
/// the instant.
using wall_clock = std::time_t (*)();

/// The system's time of day.
std::time_t system_clock();

constexpr std::int64_t china_offset_s = 28800;

/// Broken-down China Standard Time of `t`.
std::tm china_time(std::time_t t);

/// Fourteen digits, YYYYMMDDhhmmss, in China Standard Time.
std::string time_digits(std::time_t t);

/// Whether the device's own time zone is UTC, so that the offset has to be added to get local time; says so
/// in the log.
bool keeps_utc(std::time_t t);

/// Seconds since boot; 0 if the system does not tell.
long uptime();

}  // namespace arvok
