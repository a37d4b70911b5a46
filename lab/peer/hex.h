/// Bytes as hexadecimal digits and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace arvok::lab {

inline constexpr const char *hex_lower = "0123456789abcdef";
inline constexpr const char *hex_upper = "0123456789ABCDEF";

std::string to_hex(std::string_view bytes, const char *digits);

/// Nothing for an odd count of digits or anything that is no digit.
std::optional<std::string> from_hex(std::string_view text);

}  // namespace arvok::lab
