#include "base/text.h"

#include <strings.h>

#include <cstdarg>
#include <cstdio>

namespace arvok {
namespace {

constexpr std::size_t character_max = 4;  // bytes of a character

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

}  // namespace

std::string_view until_zero(std::string_view bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

bool same_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && (a.empty() || ::strncasecmp(a.data(), b.data(), a.size()) == 0);
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

std::string_view cut(std::string_view text, std::size_t size) {
    if (text.size() <= size)
        return text;
    std::size_t end = size;
    while (end > 0 && size - end < character_max && continues_character(text[end]))
        end--;
    return text.substr(0, continues_character(text[end]) ? size : end);  // else it is no UTF-8
}

std::string upper_case(std::string_view text) {
    std::string result(text);
    for (char &c : result)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return result;
}

std::string format(const char *format, ...) {
    std::string result;
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (length > 0) {
        result.resize(static_cast<std::size_t>(length));
        std::vsnprintf(result.data(), result.size() + 1, format, again);
    }
    va_end(again);
    return result;
}

}  // namespace arvok
