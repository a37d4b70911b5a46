#pragma once
/// The process's own log writer and its allocation that never fails visibly. The modules' log lines go
/// through the platform's qzcap_printf.

#include <cstddef>

namespace arvok {

/// Writes "YYYY-MM-DD hh:mm:ss.mmm [tag] " (local time) and the formatted text to standard error. The text
/// brings its own line feed.
void ulog(const char *tag, const char *format, ...) __attribute__((format(printf, 2, 3)));

/// Zeroed memory of `size` bytes, to be released with free; never null: when memory is short, one log line
/// with the caller's place and exit status 1.
void *ucalloc(std::size_t size, const char *file, int line);

}  // namespace arvok
