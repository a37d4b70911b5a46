#include "base/log.h"

#include <string.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/hex.h"

namespace arvok {
namespace {

constexpr std::size_t usual_size = 512;  // of a line

// What the log is handed at once: the longest message that comes in fits. Only the device's own replies are
// longer; no more of them than this is here in a second copy.
constexpr std::size_t piece_max = std::size_t{17} * 1024;

void write_to_standard_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

// How many bytes there are a control character: one, two of U+0080 to U+009F in UTF-8, 0: it is none.
std::size_t control_size(const char *at, const char *end) {
    if (static_cast<unsigned char>(*at) < ' ' || *at == '\x7f')
        return 1;
    return *at == '\xc2' && end - at > 1 && (at[1] & 0xe0) == 0x80 ? 2 : 0;
}

// The first control character. Eight bytes at a time are seen to be none: what is below a blank borrows, a
// delete carries, both into the top bit, which is set beyond ASCII anyway.
const char *find_control(const char *at, const char *end) {
    constexpr std::uint64_t ones = 0x0101010101010101;
    for (std::uint64_t word; end - at >= static_cast<std::ptrdiff_t>(sizeof word); at += sizeof word) {
        std::memcpy(&word, at, sizeof word);
        if (((word - ones * ' ') | (word + ones) | word) & ones * 0x80)
            for (const char *one = at; one != at + sizeof word; one++)
                if (control_size(one, end) > 0)
                    return one;
    }
    while (at != end && control_size(at, end) == 0)
        at++;
    return at;
}

// A line in the making.
class line {
  public:
    ~line() { explicit_bzero(text_, longest_); }  // messages may hold keys

    void add(std::string_view text) {
        while (text.size() > piece_max - size_) {
            const std::size_t fits = piece_max - size_;
            append(text.substr(0, fits));
            text.remove_prefix(fits);
            write();
        }
        append(text);
    }

    // With every byte of a control character so that it is seen.
    void add_visible(std::string_view text) {
        const char *at = text.data();
        const char *const end = at + text.size();
        while (at != end) {
            const char *const control = find_control(at, end);
            add({at, control});
            at = control;
            for (std::size_t bytes = at == end ? 0 : control_size(at, end); bytes > 0; bytes--, at++) {
                const char shown[] = {'\\', 'x', hex_digit(*at >> 4), hex_digit(*at)};
                add({shown, sizeof shown});
            }
        }
    }

    void write() {
        text_[size_] = '\0';
        log_output("%s", text_);
        longest_ = std::max(longest_, size_);
        size_ = 0;
    }

  private:
    void append(std::string_view text) { size_ += text.copy(text_ + size_, text.size()); }

    char text_[piece_max + 1];
    std::size_t size_ = 0, longest_ = 0;
};

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

// The rest of a line, whatever is in its format.
void add_formatted(line &to, std::string_view format, std::va_list args) {
    const std::string text = formatted(format.data(), args);
    const std::size_t line_feeds = format.size() - (format.find_last_not_of('\n') + 1);
    const std::size_t said = text.size() - std::min(line_feeds, text.size());
    to.add_visible({text.data(), said});
    to.add({text.data() + said, text.size() - said});
}

}  // namespace

void (*log_output)(const char *format, ...) = write_to_standard_error;

// Nearly all formats are of %s and %d only, which are what long messages travel in.
void log_printf(const char *format, ...) {
    const int saved_errno = errno;  // callers log between a failure and its handling
    std::va_list args;
    va_start(args, format);
    line whole;
    std::string_view rest = format;
    for (std::size_t at = rest.find('%'); at != rest.npos; at = rest.find('%')) {
        whole.add(rest.substr(0, at));
        rest.remove_prefix(at);
        if (rest.starts_with("%s")) {
            const char *text = va_arg(args, const char *);
            whole.add_visible(text ? text : "(null)");
        } else if (rest.starts_with("%d")) {
            char digits[16];
            const char *end = std::to_chars(digits, digits + sizeof digits, va_arg(args, int)).ptr;
            whole.add({digits, end});
        } else {
            add_formatted(whole, rest, args);
            rest = {};
            break;
        }
        rest.remove_prefix(2);
    }
    whole.add(rest);
    whole.write();
    va_end(args);
    errno = saved_errno;
}

}  // namespace arvok
