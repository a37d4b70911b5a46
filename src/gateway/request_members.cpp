#include "gateway/request_members.h"

#include <charconv>
#include <optional>

namespace arvok::gateway {
namespace {

std::optional<double> whole_number_in(json::view item, double min, double max) {
    const std::optional<double> n = item.number();
    return n && *n >= min && *n <= max && static_cast<double>(static_cast<std::int64_t>(*n)) == *n
               ? n
               : std::nullopt;
}

// 0 for what is no decimal number, or too large.
std::uint32_t decimal_size(std::string_view text) {
    std::uint32_t bytes = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, bytes);
    return error == std::errc() && stop == end ? bytes : 0;
}

}  // namespace

void request_members::refuse(const char *name) {
    if (ok_)
        request_.fail(invalid_parameter, "invalid %s", name);
    ok_ = false;
}

std::string_view request_members::text(const char *name) {
    const std::optional<std::string_view> text = next(name).text();
    if (!text)
        refuse(name);
    return text.value_or("");
}

std::string_view request_members::yes_no(const char *name) {
    const std::optional<std::string_view> word = next(name).text();
    if (word == "ON")
        return "yes";
    if (word == "OFF")
        return "no";
    refuse(name);
    return "";
}

int request_members::number(const char *name) {
    const std::optional<int> n = next(name).integer();
    if (!n)
        refuse(name);
    return n.value_or(0);
}

std::int32_t request_members::number(const char *name, std::int32_t min, std::int32_t max) {
    const std::optional<double> n = whole_number_in(next(name), min, max);
    if (!n)
        refuse(name);
    return static_cast<std::int32_t>(n.value_or(0));
}

std::uint32_t request_members::size(const char *name) {
    const json::view item = next(name);
    std::uint32_t bytes = 0;
    if (const std::optional<std::string_view> text = item.text())
        bytes = decimal_size(*text);
    else
        bytes = static_cast<std::uint32_t>(whole_number_in(item, 1, UINT32_MAX).value_or(0));
    if (bytes == 0)
        refuse(name);
    return bytes;
}

const platform::band &request_members::band(const char *name) {
    const std::optional<std::string_view> word = next(name).text();
    for (const platform::band &band : request_.services.cache.device_bands())
        if (word == band.word)
            return band;
    refuse(name);
    return platform::bands[0];
}

std::vector<const char *> request_members::text_or_texts(const char *name) {
    std::vector<const char *> texts;
    const json::view item = next(name);
    if (const std::optional<std::string_view> text = item.text())
        return {text->data()};
    if (item.is_array())
        for (const json::view element : item) {
            const std::optional<std::string_view> text = element.text();
            if (!text) {
                texts.clear();
                break;
            }
            texts.push_back(text->data());
        }
    if (texts.empty())
        refuse(name);
    return texts;
}

json::view request_members::array(const char *name) {
    const json::view item = next(name);
    if (item.is_array())
        return item;
    refuse(name);
    return {};
}

}  // namespace arvok::gateway
