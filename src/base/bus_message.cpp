#include "base/bus_message.h"

#include "base/handle.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

constexpr int levels_max = 48;  // more than any object nests, and fewer than the writer may have open

bool write_value(json::writer &to, blob_attr *value, int level);

bool write_each(json::writer &to, blob_attr *container, bool is_array, int level) {
    blob_attr *member;
    std::size_t rest;
    if (level > levels_max)
        return false;
    blobmsg_for_each_attr(member, container, rest) {
        if (to.is_too_long())
            return true;
        if (!blobmsg_check_attr_len(member, false, rest))
            return false;
        if (!is_array)
            to.member(std::string_view(blobmsg_name(member)));
        if (!write_value(to, member, level))
            return false;
    }
    return true;
}

bool write_value(json::writer &to, blob_attr *value, int level) {
    switch (blobmsg_type(value)) {
        case BLOBMSG_TYPE_UNSPEC:
            to.word("null");
            return true;
        case BLOBMSG_TYPE_INT8:
            to.word(blobmsg_get_u8(value) != 0 ? "true" : "false");
            return true;
        case BLOBMSG_TYPE_INT16:
            to.number(static_cast<std::int16_t>(blobmsg_get_u16(value)));
            return true;
        case BLOBMSG_TYPE_INT32:
            to.number(static_cast<std::int32_t>(blobmsg_get_u32(value)));
            return true;
        case BLOBMSG_TYPE_INT64:
            to.number(static_cast<double>(static_cast<std::int64_t>(blobmsg_get_u64(value))));
            return true;
        case BLOBMSG_TYPE_DOUBLE:
            to.number(blobmsg_get_double(value));
            return true;
        case BLOBMSG_TYPE_STRING:
            to.text(std::string_view(blobmsg_get_string(value)));
            return true;
        case BLOBMSG_TYPE_ARRAY:
        case BLOBMSG_TYPE_TABLE: {
            const bool is_array = blobmsg_type(value) == BLOBMSG_TYPE_ARRAY;
            is_array ? to.open_array() : to.open_object();
            const bool is_written = write_each(to, value, is_array, level + 1);
            to.close();
            return is_written;
        }
        default:
            return false;
    }
}

}  // namespace

bool write_members(json::writer &to, blob_attr *message) {
    return message && write_each(to, message, false, 0);
}

bool write_message(json::writer &to, const char *name, blob_attr *message) {
    const json::writer::position before = to.here();
    if (!write_members(to.open_object(name), message)) {
        to.back_to(before);
        return false;
    }
    to.close();
    return true;
}

std::optional<std::string> json_of(blob_attr *message) {
    const malloc_text text(message ? blobmsg_format_json_with_cb(message, true, nullptr, nullptr, -1)
                                   : nullptr);
    if (!text)
        return std::nullopt;
    return text.get();
}

bus_message::bus_message() {
    blob_buf_init(&buffer_, 0);
}

bus_message::~bus_message() {
    blob_buf_free(&buffer_);
}

void bus_message::text(const char *name, std::string_view characters) {
    blobmsg_add_string(&buffer_, name, std::string(characters).c_str());
}

void bus_message::text(const char *name, const char *characters) {
    blobmsg_add_string(&buffer_, name, characters ? characters : "");
}

void bus_message::number(const char *name, std::int32_t n) {
    blobmsg_add_u32(&buffer_, name, static_cast<std::uint32_t>(n));
}

bool bus_message::add_json(const std::string &object) {
    return blobmsg_add_json_from_string(&buffer_, object.c_str());
}

void add_outcome(bus_message &reply, std::string_view reason, std::string_view status) {
    reply.text("FailReason", reason);
    reply.text("Status", status);
}

bus_message::nest::nest(bus_message &message, const char *name, bool array)
    : buffer_(message.buffer_), cookie_(blobmsg_open_nested(&buffer_, name, array)) {}

bus_message::nest::~nest() {
    if (cookie_)  // else there was no room for it
        blob_nest_end(&buffer_, cookie_);
}

}  // namespace arvok
