#include "common/text.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace arvok {
namespace {

// Decides every comparison in which a null takes part; false when both texts are there.
bool null_order(const char *a, const char *b, int &order) {
    if (a && b)
        return false;
    order = a ? 1 : b ? -1 : 0;
    return true;
}

}  // namespace

text_ptr _strdup(const char *s) {
    return text_ptr(s ? ::strdup(s) : nullptr);
}

int _strlen(const char *s) {
    return s ? static_cast<int>(std::strlen(s)) : -1;
}

int _strcmp(const char *a, const char *b) {
    int order;
    return null_order(a, b, order) ? order : std::strcmp(a, b);
}

int _strcasecmp(const char *a, const char *b) {
    int order;
    return null_order(a, b, order) ? order : ::strcasecmp(a, b);
}

std::size_t _strlcpy(char *dst, const char *src, std::size_t size) {
    if (!dst || !src)
        return 0;
    const std::size_t len = std::strlen(src);
    if (size > 0) {
        const std::size_t kept = std::min(len, size - 1);
        std::memcpy(dst, src, kept);
        dst[kept] = '\0';
    }
    return len;
}

void drop_cut_character(char *text) {
    std::size_t end = std::strlen(text);
    std::size_t begin = end;
    while (begin > 0 && (text[begin - 1] & 0xc0) == 0x80)
        begin--;
    if (begin == 0 || (text[begin - 1] & 0xc0) != 0xc0)
        return;
    const unsigned char lead = static_cast<unsigned char>(text[--begin]);
    const std::size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (end - begin < size)
        text[begin] = '\0';
}

void format_cut(char *text, std::size_t size, const char *format, va_list args) {
    const int length = std::vsnprintf(text, size, format, args);
    if (length >= static_cast<int>(size))
        drop_cut_character(text);
}

}  // namespace arvok
