#pragma once
/// What the code under test logs, kept for the test to look at. May be logged to from any thread.

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "base/log.h"

namespace arvok {

inline struct captured_log {
    std::string so_far() {
        const std::lock_guard<std::mutex> guard(lock);
        return text;
    }
    /// What has been logged since the last call.
    std::string take() {
        const std::lock_guard<std::mutex> guard(lock);
        return std::exchange(text, {});
    }

    std::mutex lock;
    std::string text;  ///< for tests without threads
} logged;

__attribute__((format(printf, 1, 2))) inline void keep_line(const char *format, ...) {
    char line[131072];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    const std::lock_guard<std::mutex> guard(logged.lock);
    logged.text += line;
}

/// From here on; what was kept before goes.
inline void capture_log() {
    logged.take();
    log_output = keep_line;
}

}  // namespace arvok
