#pragma once
/// Texts: views come in, strings go out.

#include <cstddef>
#include <string>
#include <string_view>

namespace arvok {

/// The view of a C text; empty for null, which is how a platform record says that it does not know.
inline std::string_view view_of(const char *text) {
    return text ? std::string_view(text) : std::string_view();
}

/// The text up to its first zero byte: what a C call would see of it.
std::string_view until_zero(std::string_view bytes);

bool same_ignoring_case(std::string_view a, std::string_view b);

bool contains(std::string_view text, std::string_view part);

/// At most `size` bytes from the beginning, ending between two characters of UTF-8.
std::string_view cut(std::string_view text, std::size_t size);

std::string upper_case(std::string_view text);

/// As printf.
std::string format(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace arvok
