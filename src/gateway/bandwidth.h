#pragma once
/// Channel bandwidths as the protocol writes them. The platform's code is the position; "0" is automatic.

#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>

namespace arvok::gateway {

inline constexpr std::string_view bandwidth_texts[] = {"20", "40", "0", "80", "160", "80+80"};

/// "unknown" for a code beyond the table.
constexpr std::string_view bandwidth_text(std::uint32_t code) {
    return code < std::size(bandwidth_texts) ? bandwidth_texts[code] : "unknown";
}

/// Nothing for a text that is none of them.
constexpr std::optional<std::uint32_t> bandwidth_code(std::string_view text) {
    for (std::uint32_t code = 0; code < std::size(bandwidth_texts); code++)
        if (text == bandwidth_texts[code])
            return code;
    return std::nullopt;
}

}  // namespace arvok::gateway
