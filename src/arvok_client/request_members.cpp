#include "arvok_client/request_members.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "arvok_client/arvok_client.h"
#include "common/text.h"

namespace arvok {
namespace {

bool whole_number_in(const cJSON *item, double min, double max) {
    return cJSON_IsNumber(item) && item->valuedouble >= min && item->valuedouble <= max &&
           std::trunc(item->valuedouble) == item->valuedouble;
}

// 0 for what is no decimal number, or too large.
std::uint32_t decimal_size(const char *text) {
    if (std::strspn(text, "0123456789") != std::strlen(text))
        return 0;
    errno = 0;
    const unsigned long long value = std::strtoull(text, nullptr, 10);
    return errno == 0 && value <= UINT32_MAX ? static_cast<std::uint32_t>(value) : 0;
}

}  // namespace

void request_members::refuse(const char *name) {
    if (ok_)
        arvok_set_error(err_invalid_parameter, "invalid %s", name);
    ok_ = false;
}

const char *request_members::text(const char *name) {
    const char *value = cJSON_GetStringValue(next(name));
    if (!value)
        refuse(name);
    return value;
}

const char *request_members::yes_no(const char *name) {
    const char *value = cJSON_GetStringValue(next(name));
    if (_strcmp(value, "ON") == 0)
        return "yes";
    if (_strcmp(value, "OFF") == 0)
        return "no";
    refuse(name);
    return nullptr;
}

int request_members::number(const char *name) {
    const cJSON *item = next(name);
    if (cJSON_IsNumber(item))
        return item->valueint;
    refuse(name);
    return 0;
}

std::int32_t request_members::number(const char *name, std::int32_t min, std::int32_t max) {
    const cJSON *item = next(name);
    if (whole_number_in(item, min, max))
        return static_cast<std::int32_t>(item->valuedouble);
    refuse(name);
    return 0;
}

std::uint32_t request_members::size(const char *name) {
    const cJSON *item = next(name);
    std::uint32_t bytes = 0;
    if (cJSON_IsString(item))
        bytes = decimal_size(item->valuestring);
    else if (whole_number_in(item, 1, UINT32_MAX))
        bytes = static_cast<std::uint32_t>(item->valuedouble);
    if (bytes == 0)
        refuse(name);
    return bytes;
}

const wifi_band *request_members::band(const char *name) {
    const char *word = cJSON_GetStringValue(next(name));
    for (const wifi_band &band : device_bands())
        if (_strcmp(word, band.word) == 0)
            return &band;
    refuse(name);
    return nullptr;
}

std::vector<const char *> request_members::text_or_texts(const char *name) {
    const cJSON *item = next(name);
    const cJSON *first = cJSON_IsArray(item) ? item->child : item;
    std::vector<const char *> texts;
    for (const cJSON *text = first; text; text = text == item ? nullptr : text->next) {
        if (!cJSON_IsString(text)) {
            texts.clear();
            break;
        }
        texts.push_back(text->valuestring);
    }
    if (texts.empty())
        refuse(name);
    return texts;
}

const cJSON *request_members::array(const char *name) {
    const cJSON *item = next(name);
    if (cJSON_IsArray(item))
        return item;
    refuse(name);
    return nullptr;
}

}  // namespace arvok
