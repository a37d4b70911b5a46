#include "base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/hex.h"

namespace arvok {
namespace {

constexpr std::size_t usual_size = 512;  // of a line

void write_to_standard_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

bool is_control(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

std::string formatted(const char *format, std::va_list args) {
    std::va_list again;
    va_copy(again, args);
    std::string text(usual_size, '\0');
    const int length = std::vsnprintf(text.data(), text.size(), format, args);
    const bool fits = length < static_cast<int>(text.size());
    text.resize(static_cast<std::size_t>(std::max(length, 0)));
    if (!fits)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

// Writes every control character of the text so that it is seen.
std::string visible(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        if (is_control(c))
            (shown += "\\x").append({hex_digit(c >> 4), hex_digit(c)});
        else
            shown += c;
    }
    return shown;
}

}  // namespace

void (*log_output)(const char *format, ...) = write_to_standard_error;

void log_printf(const char *format, ...) {
    const int saved_errno = errno;  // callers log between a failure and its handling
    std::va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    const std::string_view own = format;
    const std::size_t line_feeds = std::min(own.size() - (own.find_last_not_of('\n') + 1), text.size());
    const auto said = text.end() - static_cast<std::ptrdiff_t>(line_feeds);
    if (std::any_of(text.begin(), said, is_control))
        text = visible({text.data(), text.size() - line_feeds}).append(line_feeds, '\n');
    log_output("%s", text.c_str());
    errno = saved_errno;
}

}  // namespace arvok
