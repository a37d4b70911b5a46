#include "cloud/app_messages.h"

#include "base/crypto.h"
#include "base/log.h"
#include "base/text.h"
#include "cloud/plugin_id.h"

namespace arvok::cloud {
namespace {

constexpr int link_message_failed = 10000;

// The words by which a command of the app manager is known, wherever in the text they stand.
bool is_app_command(const std::string &text) {
    return contains(text, "CmdType") && contains(text, "SequenceId");
}

std::optional<std::string> post_to_app(const std::string &name, const std::string &text, outcome &result) {
    log_printf("[INFO] (%s) <- %s (%d)\n", name.c_str(), text.c_str(), static_cast<int>(text.size()));
    platform::reason why;
    const platform::owned_text answer(
        platform::call(qzcap_app_postmsg, qzcap_get_ubus_context(), name.c_str(), text.c_str(), why));
    if (answer)
        return answer.get();
    result.fail(format("qzcap_app_postmsg failed: %s", why.c_str()));
    return std::nullopt;
}

}  // namespace

void app_messages::deliver(json::view request) {
    agent_.forget_link_actions();
    link_.write(run(request));
    agent_.run_link_actions();
}

// Its reply, which stays alone: it may be long.
json::value app_messages::run(json::view request) const {
    outcome result;
    const json::value answer = answer_to(request, result);
    return reply_to(request, result, "return_Parameter", answer);
}

// The answer in base64; none when there is none, and the outcome says why.
json::value app_messages::answer_to(json::view request, outcome &result) const {
    const auto id = request["Plugin_Name"].text(), version = request["Version"].text(),
               parameter = request["Parameter"].text();
    if (!id || !version || !parameter) {
        result.fail("json format invalid");
        return {};
    }
    const auto app_name = find_plugin(*id, *version, cache_.vendor(), result);
    if (!app_name)
        return {};
    const std::optional<std::string> decoded = base64_decode(*parameter);
    if (!decoded) {
        result.fail("Parameter base64 encode failed");
        return {};
    }
    auto answer = hand_over(*app_name, std::string(until_zero(*decoded)), result);
    if (!answer)
        return {};
    const std::string encoded = base64_encode(*answer);
    answer.reset();
    json::value text = json::text(encoded);
    if (text)
        result.code = 0;
    else
        result.fail(too_long);
    return text;
}

std::optional<std::string> app_messages::hand_over(const std::string &app_name, const std::string &text,
                                                   outcome &result) const {
    const bool to_self = app_name == self_app_name;
    if (to_self && !is_app_command(text))
        return run_link_message(text);
    if (!json::parse(text)) {
        result.fail("Parameter is not json format");
        return std::nullopt;
    }
    return to_self ? run_app_command(text, result) : post_to_app(app_name, text, result);
}

std::string app_messages::run_link_message(const std::string &text) const {
    log_printf("[INFO] (arvok) <- %s (%d)\n", text.c_str(), static_cast<int>(text.size()));
    const json::document message = json::parse(text);
    json::value reply = agent_.link_message(message.root());
    if (!reply)
        reply = json::object()
                    .text("type", "ack")
                    .number("errcode", link_message_failed)
                    .text("errmsg", "handle_arvok_msg failed")
                    .take();
    log_printf("[INFO] (arvok) -> %s (%d)\n", reply.text().c_str(), static_cast<int>(reply.text().size()));
    return reply.take();
}

std::optional<std::string> app_messages::run_app_command(const std::string &text, outcome &result) const {
    log_printf("[INFO] (extcc) <- %s (%d)\n", text.c_str(), static_cast<int>(text.size()));
    auto answer = agent_.app_command(text);
    if (!answer)
        result.fail("load param failed");
    return answer;
}

}  // namespace arvok::cloud
