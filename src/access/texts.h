#pragma once
/// The texts of commands and rule files: what is checked of them and what is kept.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace arvok::access {

/// Bytes of a host's MAC as a rule keeps it; what a command gives beyond that is cut.
constexpr std::size_t rule_mac_max = 15;

/// A MAC as the rules keep it, so that a longer one meets its own rule again.
inline std::string_view kept_mac(std::string_view mac) {
    return mac.substr(0, rule_mac_max);
}

/// Longest line of a rule file, and its end; a longer one counts as several.
constexpr int rule_line_size = 256;

/// The text with its line feeds replaced: one rule is one line, whatever its texts hold.
std::string one_line(std::string text);

/// Whether the text is a time of day: "24:00", or one or two digits of at most 23, ':' and two digits.
/// Minutes above 59 carry into the hour.
bool is_time_of_day(std::string_view text);

/// The number of a text that is a whole decimal number in [min, max].
std::optional<std::uint32_t> number_in(std::optional<std::string_view> text, unsigned long min,
                                       unsigned long max);

/// The number that begins a text of a file; 0 when none does.
std::uint32_t number_of(const char *text);

}  // namespace arvok::access
