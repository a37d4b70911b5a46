#pragma once
/// The log. A line's text stands whole at the call, so that what is seen in a log is found in the source.

namespace arvok {

/// Logs a text. What ends a line is only the line feed at the format's own end: any other control character,
/// also of U+0080 to U+009F in UTF-8, comes from a peer, the platform or a file, and its bytes are written as
/// \xNN, so that nobody can make lines of the agent's log, or steer the terminal of who reads it. Other UTF-8
/// stays as it is. May be called from any thread.
void log_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Where the log goes: standard error, until the platform session puts the platform's log call in. Changed
/// only while there is one thread.
extern void (*log_output)(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace arvok
