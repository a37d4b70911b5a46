/// cJSON with owners, and the way between cJSON and the bus.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "release.h"

struct blob_attr;
struct blob_buf;

namespace arvok::lab {

using JsonRelease = Releaser<cJSON_Delete>;
using json_ptr = std::unique_ptr<cJSON, JsonRelease>;
using text_ptr = std::unique_ptr<char, Releaser<std::free>>;

/// The compact text of a value.
std::string json_text(const cJSON *value);

/// Parses a text that must be one JSON object and nothing else; null otherwise.
json_ptr parse_object(const std::string &text);

/// The member's text, or null when it is absent or no string. Borrowed from `object`.
const char *string_member(const cJSON *object, const char *name);

/// The member, or nothing when it is absent or no whole number in [low, high].
std::optional<std::int64_t> integer_member(const cJSON *object, const char *name, std::int64_t low,
                                           std::int64_t high);

/// Reads an optional integer into `value`; false when it is there and no whole number in [low, high].
template <typename T>
bool read_integer(const cJSON *object, const char *name, std::int64_t low, std::int64_t high, T &value) {
    if (!cJSON_GetObjectItemCaseSensitive(object, name))
        return true;
    const std::optional<std::int64_t> number = integer_member(object, name, low, high);
    if (number)
        value = static_cast<T>(*number);
    return number.has_value();
}

/// Lays `patch` over `target`: members of objects are merged at every depth, null removes a member, anything
/// else replaces it. Both must be objects.
void merge_patch(cJSON *target, const cJSON *patch);

/// The members of a bus message as an object; an absent message is an empty object. Null when the message
/// cannot be rendered.
json_ptr from_bus(blob_attr *message);

/// Adds the members of `object` to a bus message; false when the bus cannot carry them (nested too deeply).
bool add_to_bus(blob_buf *message, const cJSON *object);

}  // namespace arvok::lab
