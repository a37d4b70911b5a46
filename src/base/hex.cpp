#include "base/hex.h"

#include <algorithm>

namespace arvok {
namespace {

constexpr std::size_t mac_digits = 12;
constexpr std::size_t mac_with_separators = 17;

bool is_upper_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

bool has_separators(std::string_view text) {
    if (text.size() != mac_with_separators)
        return false;
    for (std::size_t i = 2; i < mac_with_separators; i += 3)
        if (text[i] != '-' && text[i] != ':')
            return false;
    return true;
}

}  // namespace

int hex_value(char digit) {
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return digit >= '0' && digit <= '9' ? digit - '0' : 0;
}

char hex_digit(int value) {
    return "0123456789abcdef"[value & 0xf];
}

std::string normalised_mac(std::string_view text) {
    std::string mac;
    if (has_separators(text))
        for (std::size_t pair = 0; pair < text.size(); pair += 3)
            mac += text.substr(pair, 2);
    else
        mac = text;
    if (mac.size() != mac_digits)
        return mac;
    for (char &c : mac) {
        if (c >= 'a' && c <= 'f')
            c = static_cast<char>(c - 'a' + 'A');
        if (!is_upper_hex(c))
            break;
    }
    return mac;
}

bool is_mac(std::string_view text) {
    const std::string mac = normalised_mac(text);
    return mac.size() == mac_digits && std::all_of(mac.begin(), mac.end(), is_upper_hex);
}

}  // namespace arvok
