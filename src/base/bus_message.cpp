#include "base/bus_message.h"

#include "base/handle.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {

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
