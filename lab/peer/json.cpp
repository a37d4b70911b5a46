#include "json.h"

#include <cmath>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}

namespace arvok::lab {

std::string json_text(const cJSON *value) {
    text_ptr text(cJSON_PrintUnformatted(value));
    return text ? text.get() : "";
}

json_ptr parse_object(const std::string &text) {
    json_ptr value(cJSON_ParseWithOpts(text.c_str(), nullptr, 1));
    return cJSON_IsObject(value.get()) ? std::move(value) : nullptr;
}

const char *string_member(const cJSON *object, const char *name) {
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
}

std::optional<std::int64_t> integer_member(const cJSON *object, const char *name, std::int64_t low,
                                           std::int64_t high) {
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(object, name);
    if (!cJSON_IsNumber(member))
        return std::nullopt;
    const double value = member->valuedouble;
    // Written so that a NaN fails too.
    if (!(value >= static_cast<double>(low) && value <= static_cast<double>(high)) ||
        value != std::trunc(value))
        return std::nullopt;
    return static_cast<std::int64_t>(value);
}

void merge_patch(cJSON *target, const cJSON *patch) {
    for (const cJSON *change = patch->child; change; change = change->next) {
        cJSON *present = cJSON_GetObjectItemCaseSensitive(target, change->string);
        if (cJSON_IsNull(change)) {
            cJSON_DeleteItemFromObjectCaseSensitive(target, change->string);
        } else if (cJSON_IsObject(change)) {
            // An object laid over something else starts empty, so that the nulls inside it never survive.
            if (!cJSON_IsObject(present)) {
                cJSON_DeleteItemFromObjectCaseSensitive(target, change->string);
                present = cJSON_AddObjectToObject(target, change->string);
            }
            merge_patch(present, change);
        } else if (present) {
            cJSON_ReplaceItemInObjectCaseSensitive(target, change->string, cJSON_Duplicate(change, 1));
        } else {
            cJSON_AddItemToObject(target, change->string, cJSON_Duplicate(change, 1));
        }
    }
}

json_ptr from_bus(blob_attr *message) {
    if (!message)
        return json_ptr(cJSON_CreateObject());
    text_ptr text(blobmsg_format_json_with_cb(message, true, nullptr, nullptr, -1));
    return text ? parse_object(text.get()) : nullptr;
}

bool add_to_bus(blob_buf *message, const cJSON *object) {
    return blobmsg_add_json_from_string(message, json_text(object).c_str());
}

}  // namespace arvok::lab
