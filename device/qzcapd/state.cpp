#include "state.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <span>
#include <string_view>

#include "control_file.h"

namespace arvok::qzcapd {
namespace {

using capi::Field;
using capi::Fields;
using capi::FieldType;
using capi::Record;

enum class Shape : std::uint8_t {
    text,    ///< a string
    object,  ///< any object
    record,  ///< one record
    list,    ///< an array of records
    keyed,   ///< an object of records by key, so that a merge patch reaches each of them
};

/// A member beyond those of the record.
struct Extra {
    const char *name = nullptr;
    bool (*good)(const cJSON *) = nullptr;
    const char *wanted = "";
};

bool is_any(const cJSON *) {
    return true;
}

bool is_flag(const cJSON *value) {
    const char *text = cJSON_GetStringValue(value);
    return text != nullptr && (std::string_view(text) == "0" || std::string_view(text) == "1");
}

/// One member of the document.
struct Member {
    const char *name;
    Shape shape;
    bool per_band;                  ///< an object of "2.4G" and "5G", each of this shape
    const Record *kind;             ///< of record, list and keyed
    const char *key;                ///< keyed: the field that is the key, not repeated inside the record
    std::array<Extra, 2> extras{};  ///< members that records have in the document only
};

const Member members[] = {
    {"devinfo", Shape::record, false, &capi::devinfo, "", {}},
    {"diagnostics", Shape::record, false, &capi::diagnostics, "", {}},
    {"netstatinfo", Shape::record, false, &capi::netstatinfo, "", {}},
    {"terminalnum", Shape::record, false, &capi::terminalnum, "", {}},
    {"led_switch", Shape::text, false, nullptr, "", {}},
    {"iptv", Shape::record, false, &capi::iptv, "", {}},
    {"serverinfo", Shape::record, false, &capi::serverinfo, "", {}},
    {"waninfo", Shape::record, false, &capi::waninfo, "", {}},
    {"laninfo", Shape::keyed, false, &capi::laninfo, "mac", {}},
    {"blacklist", Shape::object, false, nullptr, "", {}},
    {"wifi_switch", Shape::record, false, &capi::wifi_switch, "", {}},
    {"wifiinfo", Shape::record, true, &capi::wifiinfo, "", {}},
    {"wifi_ap", Shape::keyed, true, &capi::wifi_ap, "index", {}},
    {"wifi_apstat", Shape::keyed, true, &capi::wifi_apstat, "", {}},
    {"wifi_timer", Shape::keyed, false, &capi::wifi_timer, "id", {}},
    {"neighbourinfo", Shape::list, false, &capi::neighbourinfo, "", {}},
    {"channel_score", Shape::list, true, &capi::channel_score, "", {}},
    {"roaming", Shape::record, false, &capi::roaming, "", {}},
    {"mesh", Shape::record, false, &capi::mesh, "", {}},
    {"mesh_roaming", Shape::record, false, &capi::roaming, "", {}},
    {"backhaulbss", Shape::record, false, &capi::backhaulbss, "", {}},
    {"mesh_topo", Shape::object, false, nullptr, "", {}},
    {"vsie_beacontx", Shape::keyed, false, &capi::vsie_beacontx, "", {{{"state", is_any, ""}}}},
    {"vsie_proberesp", Shape::list, false, &capi::vsie_proberesp, "", {}},
    {"app",
     Shape::keyed,
     false,
     &capi::app,
     "name",
     {{{"answer", is_any, ""}, {"NeedGWVendor", is_flag, R"("0" or "1")"}}}},
};

bool is_integer(const cJSON *value, double low, double high) {
    return cJSON_IsNumber(value) && value->valuedouble == std::floor(value->valuedouble) &&
           value->valuedouble >= low && value->valuedouble <= high;
}

bool is_array_of(const cJSON *value, bool (*good)(const cJSON *)) {
    if (!cJSON_IsArray(value)) {
        return false;
    }
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, value) {
        if (!good(item)) {
            return false;
        }
    }
    return true;
}

bool is_hex(const cJSON *value) {
    if (!cJSON_IsString(value)) {
        return false;
    }
    const std::string_view digits = value->valuestring;
    return digits.size() % 2 == 0 && digits.find_first_not_of("0123456789abcdefABCDEF") == digits.npos;
}

/// What a field's value must be, when it is not that; else null.
const char *field_fault(const Field &field, const cJSON *value) {
    constexpr double u32_max = std::numeric_limits<std::uint32_t>::max();
    switch (field.type) {
        case FieldType::text:
            return cJSON_IsString(value) ? nullptr : "a text";
        case FieldType::u32:
            return is_integer(value, 0, u32_max) ? nullptr : "a number from 0 to 4294967295";
        case FieldType::i32:
            return is_integer(value, std::numeric_limits<std::int32_t>::min(),
                              std::numeric_limits<std::int32_t>::max())
                       ? nullptr
                       : "a signed 32-bit number";
        case FieldType::numbers:
            return is_array_of(value, [](const cJSON *item) { return is_integer(item, 1, u32_max); })
                       ? nullptr
                       : "an array of numbers from 1 to 4294967295";
        case FieldType::texts:
            return is_array_of(value, [](const cJSON *item) { return cJSON_IsString(item) != 0; })
                       ? nullptr
                       : "an array of texts";
        case FieldType::bytes:
            return is_hex(value) ? nullptr : "a text of pairs of hexadecimal digits";
    }
    return nullptr;
}

const Field *find_field(const Record &kind, std::string_view name) {
    for (const Field &field : kind.fields) {
        if (name == field.name) {
            return &field;
        }
    }
    return nullptr;
}

std::string check_members(const Record &kind, const cJSON *value, Fields which, std::string_view key,
                          std::span<const Extra> extras) {
    if (!cJSON_IsObject(value)) {
        return ": must be an object";
    }
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, value) {
        const std::string name = item->string;
        const Field *field = find_field(kind, name);
        const auto extra =
            std::ranges::find_if(extras, [&](const Extra &e) { return e.name != nullptr && name == e.name; });
        if (extra != extras.end()) {
            if (!extra->good(item)) {
                return "." + name + ": must be " + extra->wanted;
            }
            continue;
        }
        if (field == nullptr || name == key) {
            return "." + name + ": no such member";
        }
        if (which == Fields::settable && !field->settable) {
            return "." + name + ": cannot be set";
        }
        if (const char *wanted = field_fault(*field, item)) {
            return "." + name + ": must be " + wanted;
        }
    }
    return "";
}

std::string check_key(const Member &member, const char *key) {
    if (member.kind == &capi::app && !is_app_name(key)) {
        return std::string(".") + key + ": not a name for an app";
    }
    const Field *field = find_field(*member.kind, member.key);
    const bool numeric = field == nullptr || field->type != FieldType::text;
    const std::string_view digits = key;
    const bool number =
        !digits.empty() && digits.size() <= 9 && digits.find_first_not_of("0123456789") == digits.npos;
    return numeric && !number ? std::string(".") + key + ": must be keyed by numbers" : "";
}

std::string check_shape(const Member &member, const cJSON *value) {
    const cJSON *item = nullptr;
    switch (member.shape) {
        case Shape::text:
            return cJSON_IsString(value) ? "" : ": must be a text";
        case Shape::object:
            return cJSON_IsObject(value) ? "" : ": must be an object";
        case Shape::record:
            return check_members(*member.kind, value, Fields::all, member.key, member.extras);
        case Shape::list: {
            if (!cJSON_IsArray(value)) {
                return ": must be an array";
            }
            int position = 0;
            cJSON_ArrayForEach(item, value) {
                const std::string fault =
                    check_members(*member.kind, item, Fields::all, member.key, member.extras);
                if (!fault.empty()) {
                    return "[" + std::to_string(position) + "]" + fault;
                }
                ++position;
            }
            return "";
        }
        case Shape::keyed:
            if (!cJSON_IsObject(value)) {
                return ": must be an object";
            }
            cJSON_ArrayForEach(item, value) {
                if (std::string fault = check_key(member, item->string); !fault.empty()) {
                    return fault;
                }
                const std::string fault =
                    check_members(*member.kind, item, Fields::all, member.key, member.extras);
                if (!fault.empty()) {
                    return std::string(".") + item->string + fault;
                }
            }
            return "";
    }
    return "";
}

std::string check_member(const Member &member, const cJSON *value) {
    if (!member.per_band) {
        return check_shape(member, value);
    }
    if (!cJSON_IsObject(value)) {
        return ": must be an object";
    }
    const cJSON *band = nullptr;
    cJSON_ArrayForEach(band, value) {
        const std::string_view name = band->string;
        if (name != "2.4G" && name != "5G") {
            return std::string(".") + band->string + ": must be \"2.4G\" or \"5G\"";
        }
        if (std::string fault = check_shape(member, band); !fault.empty()) {
            return std::string(".") + band->string + fault;
        }
    }
    return "";
}

const Member *find_member(std::string_view name) {
    for (const Member &member : members) {
        if (name == member.name) {
            return &member;
        }
    }
    return nullptr;
}

}  // namespace

json_ptr load_state(const std::string &path, std::string *error) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    for (char buffer[4096]; file.read(buffer, sizeof(buffer)) || file.gcount() > 0;) {
        text.append(buffer, static_cast<std::size_t>(file.gcount()));
    }
    if (!file.eof()) {
        *error = "cannot be read";
        return nullptr;
    }
    json_ptr document = parse(text, error);
    if (!document) {
        return nullptr;
    }
    Message probe;
    *error = check_state(document.get());
    if (error->empty() && !to_blob(document.get(), &probe)) {
        *error = "nested too deeply for the bus";
    }
    if (!error->empty()) {
        return nullptr;
    }
    number_hosts(document.get());
    return document;
}

void number_hosts(cJSON *document) {
    const cJSON *hosts = get(document, "laninfo");
    double last = 0;
    cJSON *host = nullptr;
    cJSON_ArrayForEach(host, hosts) {
        last = std::max(last, get_number(host, "index"));
    }
    cJSON_ArrayForEach(host, hosts) {
        if (get(host, "index") == nullptr) {
            put_number(host, "index", ++last);
        }
    }
}

std::string check_state(const cJSON *document) {
    if (!cJSON_IsObject(document)) {
        return "the state must be an object";
    }
    const cJSON *value = nullptr;
    cJSON_ArrayForEach(value, document) {
        const Member *member = find_member(value->string);
        if (member == nullptr) {
            return std::string(value->string) + ": no such member";
        }
        if (std::string fault = check_member(*member, value); !fault.empty()) {
            return value->string + fault;
        }
    }
    return "";
}

std::string check_record(const Record &kind, const cJSON *value, Fields which) {
    const std::string fault = check_members(kind, value, which, "", {});
    return fault.empty() ? "" : kind.name + fault;
}

json_ptr project(const Record &kind, const cJSON *stored, const std::string &key_name,
                 const std::string &key) {
    json_ptr record(cJSON_CreateObject());
    for (const Field &field : kind.fields) {
        if (key_name == field.name) {
            field.type == FieldType::text ? put_text(record.get(), key_name, key)
                                          : put_number(record.get(), key_name, std::stod(key));
        } else if (const cJSON *value = get(stored, field.name)) {
            put(record.get(), field.name, copy(value));
        }
    }
    return record;
}

void apply(const Record &kind, cJSON *stored, const cJSON *request) {
    for (const Field &field : kind.fields) {
        if (const cJSON *value = get(request, field.name); field.settable && value != nullptr) {
            put(stored, field.name, copy(value));
        }
    }
}

}  // namespace arvok::qzcapd
