#pragma once
/// The texts of commands and rule files: what is checked of them and what is kept.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace arvok::access {

/// The text with its line feeds replaced: one rule is one line, whatever its texts hold.
std::string one_line(std::string text);

/// The text without a last character of which only the beginning is there, as older programs left them.
std::string_view whole_characters(std::string_view text);

/// Takes the text up to the separator off a line, without it; all that is left when there is none.
std::string_view take_until(std::string_view &line, char separator);

/// Whether the text is a time of day: "24:00", or one or two digits of at most 23, ':' and two digits.
/// Minutes above 59 carry into the hour.
bool is_time_of_day(std::string_view text);

/// The number of a text that is a whole decimal number in [min, max].
std::optional<std::uint32_t> number_in(std::optional<std::string_view> text, unsigned long min,
                                       unsigned long max);

/// The number that begins a text of a file; 0 when none does.
std::uint32_t number_of(const std::string &text);

}  // namespace arvok::access
