#include "agent/app_messages.h"

#include "base/json.h"
#include "base/text.h"

namespace arvok {
namespace {

constexpr std::size_t status_words_max = 127;

}  // namespace

void app_messages::handle(blob_attr *message, bus_message &reply) {
    std::optional<std::string> text = json_of(message);
    if (!text)
        return add_outcome(reply, "invalid msg, not json format", "-1");
    const json::document root = json::parse(*text);
    text.reset();  // it may be long, and so may the answer
    const std::optional<std::string_view> command = root["CmdType"].text();
    if (!command)
        return add_outcome(reply, "invalid msg, CmdType", "-2");
    reply.text("CmdType", *command);
    reply.text("SequenceId", root["SequenceId"].text().value_or(""));
    if (!modules_)
        return add_outcome(reply, "not running", "-1");
    if (*command == "GET_STATUS")
        return get_status(reply);
    if (modules_.access->run(*command, root.root(), reply))
        return;
    reply.text("Status", "-2");
    reply.text("FailReason", "unknown CmdType");
}

void app_messages::get_status(bus_message &reply) {
    const bus_message::table agent(reply, "arvokclt");
    reply.text("tul", cache_.middleware_version());
    reply.text("addr", modules_.cloud->server_text());
    reply.text("status", cut(modules_.cloud->status_words(), status_words_max));
    reply.number("arvok_status", modules_.gateway->is_linked());
    reply.number("debug", options_.debug);
    const bus_message::table timers(reply, "timer");
    reply.number("connect", modules_.cloud->reconnect_remaining());
    reply.number("heartbeat", modules_.cloud->heartbeat_remaining());
    reply.number("ack", modules_.cloud->acknowledgement_remaining());
}

std::optional<std::string> app_messages::handle_json(const std::string &command) {
    bus_message message;
    if (!message.add_json(command))
        return std::nullopt;
    bus_message reply;
    handle(message.get(), reply);
    return json_of(reply.get()).value_or("");
}

}  // namespace arvok
