#include "record.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "qzcap.h"

namespace arvok::capi {
namespace {

template <typename T>
T &member(void *record, std::size_t offset) {
    return *reinterpret_cast<T *>(static_cast<char *>(record) + offset);
}

template <typename T>
const T &member(const void *record, std::size_t offset) {
    return *reinterpret_cast<const T *>(static_cast<const char *>(record) + offset);
}

/// Calls `visit` with each member of an array or table; false as soon as it, or the message, is wrong.
template <typename Visit>
bool for_each(blob_attr *list, bool named, Visit visit) {
    blob_attr *attr = nullptr;
    std::size_t rem = 0;
    blobmsg_for_each_attr(attr, list, rem) {
        if (!blobmsg_check_attr(attr, named) || !visit(attr)) {
            return false;
        }
    }
    return true;
}

std::size_t length_of(blob_attr *array) {
    std::size_t count = 0;
    for_each(array, false, [&](blob_attr *) { return ++count > 0; });
    return count;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool take_text(blob_attr *attr, char **out) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_STRING) {
        return false;
    }
    *out = qzcap_strdup(blobmsg_get_string(attr));
    return *out != nullptr;
}

bool take_numbers(blob_attr *attr, std::uint32_t **out) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY) {
        return false;
    }
    *out = static_cast<std::uint32_t *>(qzcap_calloc(length_of(attr) + 1, sizeof(std::uint32_t)));
    std::uint32_t *next = *out;
    return next != nullptr && for_each(attr, false, [&](blob_attr *item) {
               std::int64_t value = 0;
               if (!get_integer(item, &value) || value <= 0 ||
                   value > std::numeric_limits<std::uint32_t>::max()) {
                   return false;
               }
               *next++ = static_cast<std::uint32_t>(value);
               return true;
           });
}

/// The count grows with the texts, so that free_record finds exactly those that exist.
bool take_texts(blob_attr *attr, char ***out, std::uint32_t *count) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY) {
        return false;
    }
    *out = static_cast<char **>(qzcap_calloc(length_of(attr) + 1, sizeof(char *)));
    return *out != nullptr && for_each(attr, false, [&](blob_attr *item) {
        if (!take_text(item, &(*out)[*count])) {
            return false;
        }
        ++*count;
        return true;
    });
}

bool take_bytes(blob_attr *attr, unsigned char **out, std::uint32_t *length) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_STRING) {
        return false;
    }
    const std::string_view digits = blobmsg_get_string(attr);
    *out = static_cast<unsigned char *>(qzcap_calloc(digits.size() / 2 + 1, 1));
    if (*out == nullptr || digits.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = hex_digit(digits[i]);
        const int low = hex_digit(digits[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        (*out)[(*length)++] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

bool take_field(const Field &field, blob_attr *attr, void *record) {
    if (blobmsg_type(attr) == BLOBMSG_TYPE_UNSPEC) {
        return true;  // null on the bus: stays null or 0
    }
    std::int64_t value = 0;
    switch (field.type) {
        case FieldType::text:
            return take_text(attr, &member<char *>(record, field.offset));
        case FieldType::u32:
            if (!get_integer(attr, &value) || value < 0 ||
                value > std::numeric_limits<std::uint32_t>::max()) {
                return false;
            }
            member<std::uint32_t>(record, field.offset) = static_cast<std::uint32_t>(value);
            return true;
        case FieldType::i32:
            if (!get_integer(attr, &value) || value < std::numeric_limits<std::int32_t>::min() ||
                value > std::numeric_limits<std::int32_t>::max()) {
                return false;
            }
            member<std::int32_t>(record, field.offset) = static_cast<std::int32_t>(value);
            return true;
        case FieldType::numbers:
            return take_numbers(attr, &member<std::uint32_t *>(record, field.offset));
        case FieldType::texts:
            return take_texts(attr, &member<char **>(record, field.offset),
                              &member<std::uint32_t>(record, field.size_offset));
        case FieldType::bytes:
            return take_bytes(attr, &member<unsigned char *>(record, field.offset),
                              &member<std::uint32_t>(record, field.size_offset));
    }
    return false;
}

/// blobmsg_add_json_from_string makes an int32 of every number that fits one and an int64 of every other; so
/// do we.
void put_u32(blob_buf *buf, const char *name, std::uint32_t value) {
    if (value > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max())) {
        blobmsg_add_u64(buf, name, value);
    } else {
        blobmsg_add_u32(buf, name, value);
    }
}

void put_bytes(blob_buf *buf, const char *name, const unsigned char *data, std::uint32_t length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(std::size_t{length} * 2);
    for (std::uint32_t i = 0; data != nullptr && i < length; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    blobmsg_add_string(buf, name, text.c_str());
}

void put_field(blob_buf *buf, const Field &field, const void *record) {
    switch (field.type) {
        case FieldType::text:
            if (const char *text = member<char *>(record, field.offset)) {
                blobmsg_add_string(buf, field.name, text);
            }
            break;
        case FieldType::u32:
            put_u32(buf, field.name, member<std::uint32_t>(record, field.offset));
            break;
        case FieldType::i32:
            blobmsg_add_u32(buf, field.name,
                            static_cast<std::uint32_t>(member<std::int32_t>(record, field.offset)));
            break;
        case FieldType::numbers:
            if (const std::uint32_t *number = member<std::uint32_t *>(record, field.offset)) {
                void *array = blobmsg_open_array(buf, field.name);
                for (; *number != 0; ++number) {
                    put_u32(buf, nullptr, *number);
                }
                blobmsg_close_array(buf, array);
            }
            break;
        case FieldType::texts: {
            char *const *texts = member<char **>(record, field.offset);
            void *array = blobmsg_open_array(buf, field.name);
            for (std::uint32_t i = 0;
                 texts != nullptr && i < member<std::uint32_t>(record, field.size_offset); ++i) {
                blobmsg_add_string(buf, nullptr, texts[i] != nullptr ? texts[i] : "");
            }
            blobmsg_close_array(buf, array);
            break;
        }
        case FieldType::bytes:
            put_bytes(buf, field.name, member<unsigned char *>(record, field.offset),
                      member<std::uint32_t>(record, field.size_offset));
            break;
    }
}

}  // namespace

void put_record(blob_buf *buf, const Record &kind, const void *record, Fields which) {
    for (const Field &field : kind.fields) {
        if (which == Fields::all || field.settable) {
            put_field(buf, field, record);
        }
    }
}

void *take_record(const Record &kind, blob_attr *table) {
    void *record = qzcap_calloc(1, kind.size);
    if (record == nullptr) {
        return nullptr;
    }
    std::uint64_t seen = 0;  // a repeated member must not leak the first one
    const auto begin = kind.fields.begin(), end = kind.fields.end();
    auto next = begin;  // the members mostly come in the order of the fields
    const bool good = for_each(table, true, [&](blob_attr *attr) {
        const char *name = blobmsg_name(attr);
        const auto named = [name](const Field &field) { return std::strcmp(field.name, name) == 0; };
        auto field = std::find_if(next, end, named);
        if (field == end) {
            field = std::find_if(begin, next, named);
            if (field == next) {
                return true;
            }
        }
        const std::uint64_t bit = std::uint64_t{1} << (field - begin);
        const bool first = (seen & bit) == 0;
        seen |= bit;
        next = field + 1;
        return first && take_field(*field, attr, record);
    });
    if (!good) {
        free_record(kind, record);
        return nullptr;
    }
    return record;
}

void free_record(const Record &kind, void *record) {
    if (record == nullptr) {
        return;
    }
    for (const Field &field : kind.fields) {
        switch (field.type) {
            case FieldType::u32:
            case FieldType::i32:
                break;
            case FieldType::text:
                qzcap_free(member<char *>(record, field.offset));
                break;
            case FieldType::numbers:
                qzcap_free(member<std::uint32_t *>(record, field.offset));
                break;
            case FieldType::texts: {
                char **texts = member<char **>(record, field.offset);
                for (std::uint32_t i = 0;
                     texts != nullptr && i < member<std::uint32_t>(record, field.size_offset); ++i) {
                    qzcap_free(texts[i]);
                }
                qzcap_free(texts);
                break;
            }
            case FieldType::bytes:
                qzcap_free(member<unsigned char *>(record, field.offset));
                break;
        }
    }
    qzcap_free(record);
}

bool get_integer(blob_attr *attr, std::int64_t *value) {
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_INT8:
            *value = blobmsg_get_u8(attr);
            return true;
        case BLOBMSG_TYPE_INT16:
            *value = static_cast<std::int16_t>(blobmsg_get_u16(attr));
            return true;
        case BLOBMSG_TYPE_INT32:
            *value = static_cast<std::int32_t>(blobmsg_get_u32(attr));
            return true;
        case BLOBMSG_TYPE_INT64:
            *value = static_cast<std::int64_t>(blobmsg_get_u64(attr));
            return true;
        default:
            return false;
    }
}

}  // namespace arvok::capi
