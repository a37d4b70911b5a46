#include "gateway/request.h"

#include <cstdio>

#include "base/log.h"
#include "base/text.h"

namespace arvok::gateway {

void request::record(error_code code, const char *format, std::va_list args) {
    char text[error_text_max + 1 + 4];  // a character more, so that cut() sees where the last one ends
    std::vsnprintf(text, sizeof text, format, args);
    errmsg_ = cut(text, error_text_max);
    errcode_ = code;
    log_printf("[ERROR] (%d) %s\n", code, errmsg_.c_str());
}

void request::fail(error_code code, const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    record(code, format, args);
    va_end(args);
}

bool request::fail_item(error_code code, const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    record(code, format, args);
    va_end(args);
    return false;
}

bool request::has_envelope() const {
    if (from_cloud)
        return true;
    if (!root["sequence"].is_number()) {
        log_printf("[ERROR] invalid sequence\n");
        return false;
    }
    if (!root["mac"].is_text()) {
        log_printf("[ERROR] invalid mac\n");
        return false;
    }
    return true;
}

json::object request::reply_of(std::string_view type) const {
    json::object reply_object;
    reply_object.text("type", type)
        .number("sequence", root["sequence"].number().value_or(0))
        .text("mac", services.cache.own_mac());
    return reply_object;
}

void request::acknowledge() {
    reply = reply_of("ack").number("errcode", errcode_).text("errmsg", errmsg_).take();
}

}  // namespace arvok::gateway
