// What goes out.

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "base/base64.h"
#include "base/hex.h"
#include "base/json.h"

namespace arvok::json {
namespace {

constexpr double exact_max = 9007199254740992;  // 2^53
constexpr std::size_t usual_size = 255;         // of an object: it need not grow from the beginning

// By character: what stands behind the backslash, 'u' for its number, 0 for what is written as it is.
constexpr auto escapes = [] {
    std::array<char, 256> table{};
    for (std::size_t c = 0; c < ' '; c++)
        table[c] = 'u';
    table['"'] = '"';
    table['\\'] = '\\';
    table['\b'] = 'b';
    table['\f'] = 'f';
    table['\n'] = 'n';
    table['\r'] = 'r';
    table['\t'] = 't';
    return table;
}();

// An escape is six characters for one: what becomes too long is not written to its end.
void append_quoted(std::string &out, std::string_view characters) {
    out += '"';
    std::size_t plain = 0;  // from here on nothing had to be escaped yet
    for (std::size_t at = 0; at < characters.size(); at++) {
        const char c = characters[at], escape = escapes[static_cast<unsigned char>(c)];
        if (escape == 0)
            continue;
        if (out.size() > text_max)
            return;
        out.append(characters, plain, at - plain).append({'\\', escape});
        if (escape == 'u')
            out.append({'0', '0', hex_digit(c >> 4), hex_digit(c)});
        plain = at + 1;
    }
    out.append(characters.data() + plain, characters.size() - plain);
    out += '"';
}

void append_digits(std::string &out, std::int64_t n) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, n).ptr;
    out.append(digits, end);
}

// Exactly so, without a call into the mathematical library.
bool is_whole(double n) {
    return n >= -exact_max && n <= exact_max && static_cast<double>(static_cast<std::int64_t>(n)) == n;
}

// Whole numbers are written here: the JSON library writes those beyond int with 15 digits when that comes
// close, and all of them by way of printing, reading back and comparing a floating-point number.
void append_number(std::string &out, double n) {
    if (!is_whole(n)) {
        const handle<cJSON, &cJSON_Delete> node(cJSON_CreateNumber(n));
        out += view(node.get()).print();
        return;
    }
    append_digits(out, static_cast<std::int64_t>(n));
}

}  // namespace

value text(std::string_view characters) {
    std::string quoted;
    append_quoted(quoted, characters);
    return value(std::move(quoted));
}

value base64_text(std::string_view bytes) {
    std::string quoted;
    quoted.reserve((bytes.size() + 2) / 3 * 4 + 3);
    quoted += '"';
    append_base64(quoted, bytes);
    quoted += '"';
    return value(std::move(quoted));
}

value number(double n) {
    std::string digits;
    append_number(digits, n);
    return value(std::move(digits));
}

value copy(view of) {
    return value(of.print());
}

writer::writer(char bracket, bool is_array) : open_(is_array ? 3 : 2) {
    text_.reserve(usual_size);
    text_ += bracket;
}

object::object(view begun, std::initializer_list<std::string_view> replaced) : writer('{', false) {
    if (begun.is_object())
        for (const view each : begun)
            if (std::find(replaced.begin(), replaced.end(), each.name()) == replaced.end())
                member(each.name()).add(copy(each));
}

// Whether there is room for a value of that size, with what stands between it and what is before it.
bool writer::begin_value(std::size_t size) {
    if (too_long_ || text_.size() + size >= text_max) {
        too_long_ = true;
        return false;
    }
    if (const char last = text_.back(); last != '{' && last != '[' && last != ':')
        text_ += ',';
    return true;
}

writer &writer::member(const char *literal) {
    const std::string_view name = literal;
    if (!begin_value(name.size()))
        return *this;
    text_ += '"';
    text_ += name;
    text_ += '"';
    text_ += ':';
    return *this;
}

writer &writer::colon() {
    if (!too_long_)
        text_ += ':';
    return *this;
}

writer &writer::text(std::string_view characters) {
    if (begin_value(characters.size()))
        append_quoted(text_, characters);
    return *this;
}

writer &writer::number(double n) {
    if (begin_value(0))
        append_number(text_, n);
    return *this;
}

writer &writer::digits(const char *name, std::int64_t n) {
    if (member(name).begin_value(0)) {
        text_ += '"';
        append_digits(text_, n);
        text_ += '"';
    }
    return *this;
}

writer &writer::word(std::string_view literal) {
    if (begin_value(literal.size()))
        text_ += literal;
    return *this;
}

writer &writer::add(const value &v) {
    too_long_ |= v.is_too_long();
    if (v && begin_value(v.text().size()))
        text_ += v.text();
    return *this;
}

writer &writer::open(char bracket, bool is_array) {
    if (begin_value(0))
        text_ += bracket;
    open_ = open_ << 1 | static_cast<std::uint64_t>(is_array);
    return *this;
}

writer &writer::close() {
    if (!too_long_)
        text_ += open_ & 1 ? ']' : '}';
    open_ >>= 1;
    return *this;
}

void writer::back_to(position earlier) {
    text_.resize(earlier.size);
    open_ = earlier.open;
    too_long_ = false;
}

writer &writer::again(std::size_t begin, std::size_t size) {
    if (begin_value(size))
        text_.append(text_, begin, size);
    return *this;
}

void writer::begin_with(writer &members) {
    if (text_.size() > 1)
        members.text_ += ',';
    text_.replace(0, 1, members.text_);
}

value writer::take() {
    while (open_ > 1)
        close();
    value whole(too_long_ ? std::string() : std::move(text_));
    whole.too_long_ |= too_long_;
    return whole;
}

}  // namespace arvok::json
