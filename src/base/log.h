#pragma once
/// The log. A line's text stands whole at the call, so that what is seen in a log is found in the source.

namespace arvok {

/// Where the log goes: standard error, until the platform session puts the platform's log call in. Texts
/// bring their own line feed. May be called from any thread; changed only while there is one.
extern void (*log_printf)(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace arvok
