#include "common/json.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include "common/text.h"

namespace arvok {
namespace {

constexpr double exact_max = 9007199254740992;  // 2^53

// Whole numbers are written here: the JSON library writes those beyond int with 15 digits when that comes
// close, and all of them by way of printing, reading back and comparing a floating-point number.
json_ptr json_number(double value) {
    if (std::fabs(value) > exact_max || std::trunc(value) != value)
        return json_ptr(cJSON_CreateNumber(value));
    char digits[24] = "";
    std::to_chars(digits, digits + sizeof digits - 1, static_cast<std::int64_t>(value));
    return json_ptr(cJSON_CreateRaw(digits));
}

}  // namespace

json_ptr json_parse(const char *text) {
    return json_ptr(cJSON_Parse(text));
}

text_ptr json_print(const cJSON *root) {
    return text_ptr(root ? cJSON_PrintUnformatted(root) : nullptr);
}

const cJSON *json_member(const cJSON *obj, const char *key) {
    return cJSON_GetObjectItemCaseSensitive(obj, key);
}

const char *json_text(const cJSON *obj, const char *key) {
    return cJSON_GetStringValue(json_member(obj, key));
}

int _get_json_int(const cJSON *obj, const char *key, int dflt) {
    const cJSON *item = json_member(obj, key);
    return cJSON_IsNumber(item) ? item->valueint : dflt;
}

text_ptr _get_json_str(const cJSON *obj, const char *key) {
    return _strdup(json_text(obj, key));
}

int _get_json_str_array(const cJSON *obj, const char *key, std::vector<text_ptr> &out) {
    const cJSON *array = json_member(obj, key);
    if (!cJSON_IsArray(array) || !array->child)
        return 0;
    out.clear();
    for (const cJSON *item = array->child; item; item = item->next)
        out.push_back(_strdup(cJSON_GetStringValue(item)));
    const int count = static_cast<int>(out.size());
    out.push_back(nullptr);
    return count;
}

json_object &json_object::text(const char *key, const char *value) {
    return add(key, json_ptr(cJSON_CreateString(text_or_empty(value))));
}

json_object &json_object::number(const char *key, double value) {
    return add(key, json_number(value));
}

json_object &json_object::add(const char *key, json_ptr value) {
    if (value && cJSON_AddItemToObject(root_.get(), key, value.get()))
        static_cast<void>(value.release());
    return *this;
}

json_ptr json_texts(std::initializer_list<const char *> texts) {
    json_ptr array(cJSON_CreateArray());
    for (const char *text : texts)
        json_append(array.get(), json_ptr(cJSON_CreateString(text_or_empty(text))));
    return array;
}

void json_append(cJSON *array, json_ptr value) {
    if (value && cJSON_AddItemToArray(array, value.get()))
        static_cast<void>(value.release());
}

}  // namespace arvok
