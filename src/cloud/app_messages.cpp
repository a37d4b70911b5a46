#include "cloud/app_messages.h"

#include <utility>

#include "base/base64.h"
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

// What became of a link message, as its answer.
std::string link_answer(json::value reply) {
    if (!reply)
        reply = json::object()
                    .text("type", "ack")
                    .number("errcode", link_message_failed)
                    .text("errmsg", "handle_arvok_msg failed")
                    .take();
    log_printf("[INFO] (arvok) -> %s (%d)\n", reply.text().c_str(), static_cast<int>(reply.text().size()));
    return reply.take();
}

// The reply with the answer in base64, or with what the outcome says when there is none. What it is made of
// does not outlive it: it may be long.
json::value app_reply(json::view request, outcome result, std::optional<std::string> answer) {
    json::value text;
    if (answer) {
        text = json::base64_text(*answer);
        answer.reset();
        if (text)
            result.code = 0;
        else
            result.fail(too_long);
    }
    return reply_to(request, result, "return_Parameter", text);
}

}  // namespace

void app_messages::deliver(json::view request) {
    agent_.forget_link_actions();
    outcome result;
    if (std::optional<answer> given = hand_over(request, result)) {
        link_.write(app_reply(request, result, std::move(*given)));
        return agent_.run_link_actions();
    }
    waiting_ = json::parse(request.print());
    link_.hold();
}

void app_messages::link_message_answered(json::value reply) {
    const json::document request = std::move(waiting_);
    link_.write(app_reply(request.root(), {}, link_answer(std::move(reply))));
    link_.release();
}

void app_messages::abandon() {
    if (std::exchange(waiting_, {}))
        agent_.abandon_link_message();
}

// The answer: none when there is none and the outcome says why, nothing when it is still to come.
std::optional<app_messages::answer> app_messages::hand_over(json::view request, outcome &result) const {
    const auto none = [&](const char *why) {
        result.fail(why);
        return answer();
    };
    const auto id = request["Plugin_Name"].text(), version = request["Version"].text(),
               parameter = request["Parameter"].text();
    if (!id || !version || !parameter)
        return none("json format invalid");
    const auto app_name = find_plugin(*id, *version, cache_.vendor(), result);
    if (!app_name)
        return answer();
    const std::optional<std::string> decoded = base64_decode(*parameter);
    if (!decoded)
        return none("Parameter base64 encode failed");
    const std::string text(until_zero(*decoded));
    const bool to_self = *app_name == self_app_name;
    if (to_self && !is_app_command(text))
        return run_link_message(text);
    if (!json::parse(text))
        return none("Parameter is not json format");
    return to_self ? run_app_command(text, result) : post_to_app(*app_name, text, result);
}

std::optional<app_messages::answer> app_messages::run_link_message(const std::string &text) const {
    log_printf("[INFO] (arvok) <- %s (%d)\n", text.c_str(), static_cast<int>(text.size()));
    const json::document message = json::parse(text);
    std::optional<json::value> reply = agent_.link_message(message.root());
    if (!reply)
        return std::nullopt;
    return link_answer(std::move(*reply));
}

app_messages::answer app_messages::run_app_command(const std::string &text, outcome &result) const {
    log_printf("[INFO] (extcc) <- %s (%d)\n", text.c_str(), static_cast<int>(text.size()));
    answer given = agent_.app_command(text);
    if (!given)
        result.fail("load param failed");
    return given;
}

}  // namespace arvok::cloud
