#include "base/json.h"

#include <malloc.h>
#include <string.h>

#include <charconv>
#include <cstdlib>

#include "base/text.h"

namespace arvok::json {
namespace {

constexpr double exact_max = 9007199254740992;  // 2^53
constexpr std::size_t usual_size = 128;         // of an object: it need not grow from the beginning

void append_quoted(std::string &out, std::string_view characters) {
    out += '"';
    std::size_t plain = 0;  // from here on nothing had to be escaped yet
    for (std::size_t at = 0; at < characters.size(); at++) {
        const char c = characters[at];
        if (static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\')
            continue;
        out.append(characters, plain, at - plain);
        plain = at + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += format("\\u%04x", static_cast<unsigned>(c));
        }
    }
    out.append(characters, plain);
    out += '"';
}

std::string print_node(const cJSON *node) {
    const malloc_text text(node ? cJSON_PrintUnformatted(node) : nullptr);
    return std::string(view_of(text.get()));
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
        out += print_node(node.get());
        return;
    }
    append_digits(out, static_cast<std::int64_t>(n));
}

}  // namespace

void overwrite_released() {
    cJSON_Hooks hooks{.malloc_fn = std::malloc, .free_fn = [](void *memory) {
                          if (memory)
                              explicit_bzero(memory, malloc_usable_size(memory));
                          std::free(memory);
                      }};
    cJSON_InitHooks(&hooks);
}

view view::operator[](const char *name) const {
    return view(cJSON_GetObjectItemCaseSensitive(node_, name));
}

std::optional<std::string_view> view::text() const {
    if (!is_text())
        return std::nullopt;
    return std::string_view(node_->valuestring);
}

std::optional<double> view::number() const {
    if (!is_number())
        return std::nullopt;
    return node_->valuedouble;
}

std::optional<int> view::integer() const {
    if (!is_number())
        return std::nullopt;
    return node_->valueint;
}

std::string view::print() const {
    return print_node(node_);
}

document parse(const char *text) {
    document parsed;
    parsed.root_.reset(cJSON_Parse(text));
    return parsed;
}

value text(std::string_view characters) {
    std::string quoted;
    append_quoted(quoted, characters);
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

object::object(view begun) : text_(begun.is_object() ? begun.print() : "") {
    if (text_.empty())
        text_ = "{}";
    text_.pop_back();
}

void object::begin() {
    text_.reserve(usual_size);
    text_ += '{';
}

void object::begin_member(const char *literal) {
    text_.append(text_.size() > 1 ? ",\"" : "\"").append(literal).append("\":");
}

object &object::text(const char *name, std::string_view characters) {
    begin_member(name);
    append_quoted(text_, characters);
    return *this;
}

object &object::text(const char *name, const char *characters) {
    return text(name, view_of(characters));
}

object &object::number(const char *name, double n) {
    begin_member(name);
    append_number(text_, n);
    return *this;
}

object &object::digits(const char *name, std::int64_t n) {
    begin_member(name);
    text_ += '"';
    append_digits(text_, n);
    text_ += '"';
    return *this;
}

object &object::add(const char *name, const value &v) {
    if (v) {
        begin_member(name);
        text_ += v.text();
    }
    return *this;
}

object &object::add(std::string_view name, const value &v) {
    if (v) {
        if (text_.size() > 1)
            text_ += ',';
        append_quoted(text_, name);
        text_ += ':';
        text_ += v.text();
    }
    return *this;
}

value object::take() {
    text_ += '}';
    return value(std::move(text_));
}

array &array::add(const value &v) {
    if (v) {
        if (text_.size() > 1)
            text_ += ',';
        text_ += v.text();
    }
    return *this;
}

value array::take() {
    text_ += ']';
    return value(std::move(text_));
}

}  // namespace arvok::json
