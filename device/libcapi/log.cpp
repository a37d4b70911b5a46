#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "qzcap.h"

namespace {

/// The next character written begins a line. Threads may log at the same time; each call is one write.
std::atomic<bool> at_line_start{true};

std::string formatted(const char *format, std::va_list args) {
    char small[17 * 1024];  // the longest message of any protocol and what is said around it
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(small, sizeof(small), format, args);
    std::string text;
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof(small)) {
        text.assign(small, static_cast<std::size_t>(length));
    } else if (length >= 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    explicit_bzero(small, std::min(sizeof(small), static_cast<std::size_t>(std::max(length, 0)) +
                                                      1));  // messages may hold keys
    return text;
}

/// "HH:MM:SS.mmm ". What a second is called is kept for the next lines of it.
std::string time_prefix() {
    thread_local std::time_t named = -1;
    thread_local char text[32];
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != named) {
        tm local{};
        localtime_r(&now.tv_sec, &local);
        std::snprintf(text, sizeof(text), "%02d:%02d:%02d.000 ", local.tm_hour, local.tm_min, local.tm_sec);
        named = now.tv_sec;
    }
    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    std::string prefix(text);
    prefix[9] = static_cast<char>('0' + ms / 100);
    prefix[10] = static_cast<char>('0' + ms / 10 % 10);
    prefix[11] = static_cast<char>('0' + ms % 10);
    return prefix;
}

void write_all(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace

void qzcap_printf(const char *format, ...) {
    const int saved_errno = errno;  // "%m" reads it, and callers log between a failure and its handling
    std::va_list args;
    va_start(args, format);
    const std::string text = formatted(format, args);
    va_end(args);
    if (!text.empty()) {
        const std::string prefix = time_prefix();
        std::string out;
        out.reserve(prefix.size() + text.size());
        bool start = at_line_start.exchange(text.back() == '\n');
        for (std::string_view rest = text; !rest.empty(); start = true) {
            const std::string_view line = rest.substr(0, rest.find('\n') + (rest.find('\n') != rest.npos));
            out.append(start ? prefix : std::string()).append(line);
            rest.remove_prefix(line.size());
        }
        write_all(out);
    }
    errno = saved_errno;
}
