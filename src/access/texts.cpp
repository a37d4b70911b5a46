#include "access/texts.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace arvok::access {

std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string_view whole_characters(std::string_view text) {
    std::size_t at = text.size();
    while (at > 0 && text.size() - at < 4) {
        const auto byte = static_cast<unsigned char>(text[--at]);
        if ((byte & 0xc0) == 0x80)
            continue;
        const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        return length > text.size() - at ? text.substr(0, at) : text;
    }
    return text;
}

std::string_view take_until(std::string_view &line, char separator) {
    const std::string_view part = line.substr(0, line.find(separator));
    line.remove_prefix(std::min(line.size(), part.size() + 1));
    return part;
}

bool is_time_of_day(std::string_view text) {
    if (text == "24:00")
        return true;
    if (text.size() != 4 && text.size() != 5)
        return false;
    for (std::size_t i = 0; i < text.size(); i++) {
        const bool colon = i == text.size() - 3;
        if (colon ? text[i] != ':' : !std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
    }
    return text.size() == 4 || text.substr(0, 2) <= "23";
}

std::optional<std::uint32_t> number_in(std::optional<std::string_view> text, unsigned long min,
                                       unsigned long max) {
    if (!text || text->empty())
        return std::nullopt;
    const std::string digits(*text);
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(digits.c_str(), &end, 10);
    if (errno != 0 || *end || value < min || value > max)
        return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::uint32_t number_of(const std::string &text) {
    return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

}  // namespace arvok::access
