#include "cloud/reply.h"

#include "base/log.h"
#include "base/text.h"

namespace arvok::cloud {
namespace {

constexpr std::size_t reason_max = 255;

}  // namespace

void outcome::fail(std::string_view why) {
    reason = cut(why, reason_max);
    log_printf("[ERROR] %s\n", reason.c_str());
}

json::value reply_to(json::view request, const outcome &result, const char *key, const json::value &item) {
    json::object reply;
    reply.text("Ack", request["RPCMethod"].text().value_or(""))
        .text("ID", request["ID"].text().value_or(""))
        .number("Result", result.code);
    if (result.code != 0 && !result.reason.empty())
        reply.text("FailReason", result.reason);
    if (json::value whole = reply.add(key, item).take())
        return whole;
    outcome failed;
    failed.fail(too_long);
    return reply_to(request, failed);
}

}  // namespace arvok::cloud
