#include "json.h"

#include <algorithm>
#include <cstdlib>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok::qzcapd {
namespace {

struct FreeText {
    void operator()(char *text) const { std::free(text); }
};
using text_ptr = std::unique_ptr<char, FreeText>;

}  // namespace

json_ptr parse(const std::string &text, std::string *error) {
    const char *end = nullptr;
    json_ptr value(cJSON_ParseWithOpts(text.c_str(), &end, true));
    if (!value && error != nullptr) {
        const auto offset = end != nullptr ? end - text.c_str() : 0;
        const auto line = 1 + std::count(text.begin(), text.begin() + offset, '\n');
        *error = "not JSON, line " + std::to_string(line);
    }
    return value;
}

std::string print(const cJSON *value) {
    const text_ptr text(cJSON_PrintUnformatted(value));
    return text ? text.get() : "";
}

json_ptr copy(const cJSON *value) {
    return json_ptr(cJSON_Duplicate(value, true));
}

cJSON *get(const cJSON *object, const std::string &name) {
    return cJSON_GetObjectItemCaseSensitive(object, name.c_str());
}

const char *get_text(const cJSON *object, const std::string &name) {
    return cJSON_GetStringValue(get(object, name));
}

double get_number(const cJSON *object, const std::string &name) {
    const cJSON *value = get(object, name);
    return cJSON_IsNumber(value) ? value->valuedouble : 0;
}

void put(cJSON *object, const std::string &name, json_ptr value) {
    if (get(object, name) != nullptr) {
        cJSON_ReplaceItemInObjectCaseSensitive(object, name.c_str(), value.release());
    } else {
        cJSON_AddItemToObject(object, name.c_str(), value.release());
    }
}

void put_text(cJSON *object, const std::string &name, const std::string &text) {
    put(object, name, json_ptr(cJSON_CreateString(text.c_str())));
}

void put_number(cJSON *object, const std::string &name, double number) {
    put(object, name, json_ptr(cJSON_CreateNumber(number)));
}

void merge_patch(cJSON *target, const cJSON *patch) {
    const cJSON *change = nullptr;
    cJSON_ArrayForEach(change, patch) {
        const std::string name = change->string;
        if (cJSON_IsNull(change)) {
            cJSON_DeleteItemFromObjectCaseSensitive(target, name.c_str());
        } else if (!cJSON_IsObject(change)) {
            put(target, name, copy(change));
        } else {
            if (!cJSON_IsObject(get(target, name))) {
                put(target, name, json_ptr(cJSON_CreateObject()));
            }
            merge_patch(get(target, name), change);
        }
    }
}

json_ptr from_blob(blob_attr *message) {
    if (message == nullptr) {
        return json_ptr(cJSON_CreateObject());
    }
    const text_ptr text(blobmsg_format_json_with_cb(message, true, nullptr, nullptr, -1));
    return text ? json_ptr(cJSON_Parse(text.get())) : nullptr;
}

bool to_blob(const cJSON *object, Message *message) {
    return blobmsg_add_json_from_string(message->buf(), print(object).c_str());
}

}  // namespace arvok::qzcapd
