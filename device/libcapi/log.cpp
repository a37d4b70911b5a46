#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "qzcap.h"

namespace {

/// The next character written begins a line. Threads may log at the same time; each call is one write.
std::atomic<bool> at_line_start{true};

constexpr std::size_t prefix_size = 13;
constexpr std::size_t usual_max =
    17 * 1024;  // the longest message of any protocol and what is said around it

/// Writes "HH:MM:SS.mmm ". What a second is called is kept for the next lines of it.
void put_time(char *prefix) {
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
    std::memcpy(prefix, text, prefix_size);
    prefix[9] = static_cast<char>('0' + ms / 100);
    prefix[10] = static_cast<char>('0' + ms / 10 % 10);
    prefix[11] = static_cast<char>('0' + ms % 10);
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

/// Writes text of any length and number of lines behind the time.
void write_lines(std::string_view time, std::string_view text, bool start) {
    std::string out;
    out.reserve(time.size() + text.size());
    for (std::string_view rest = text; !rest.empty(); start = true) {
        const std::string_view line = rest.substr(0, rest.find('\n') + (rest.find('\n') != rest.npos));
        out.append(start ? time : std::string_view()).append(line);
        rest.remove_prefix(line.size());
    }
    write_all(out);
}

}  // namespace

void qzcap_printf(const char *format, ...) {
    const int saved_errno = errno;  // "%m" reads it, and callers log between a failure and its handling
    char line[prefix_size + usual_max + 1];
    char *const said = line + prefix_size;
    std::va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    std::string_view text;
    std::string longer;
    if (std::strcmp(format, "%s") == 0) {  // ready-made
        text = va_arg(args, const char *);
    } else {
        const auto length =
            static_cast<std::size_t>(std::max(std::vsnprintf(said, usual_max + 1, format, args), 0));
        text = {said, std::min(length, usual_max)};
        if (length > usual_max) {
            longer.resize(length);
            std::vsnprintf(longer.data(), length + 1, format, again);
            text = longer;
        }
    }
    va_end(again);
    va_end(args);
    const std::size_t size = std::min(text.size(), usual_max);
    if (!text.empty()) {
        put_time(line);
        const bool start = at_line_start.exchange(text.back() == '\n');
        if (text.size() > usual_max || text.substr(0, text.size() - 1).find('\n') != text.npos) {
            write_lines({line, prefix_size}, text, start);
        } else {
            std::memmove(said, text.data(), size);
            write_all({start ? line : said, size + (start ? prefix_size : 0)});
        }
    }
    explicit_bzero(line, prefix_size + size);  // messages may hold keys
    errno = saved_errno;
}
