#include "hex.h"

namespace arvok::lab {
namespace {

int value_of(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

}  // namespace

std::string to_hex(std::string_view bytes, const char *digits) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text.push_back(digits[value >> 4]);
        text.push_back(digits[value & 15]);
    }
    return text;
}

std::optional<std::string> from_hex(std::string_view text) {
    if (text.size() % 2 != 0)
        return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        const int high = value_of(text[at]), low = value_of(text[at + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes.push_back(static_cast<char>(high << 4 | low));
    }
    return bytes;
}

}  // namespace arvok::lab
