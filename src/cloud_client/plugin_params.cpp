// "SetPluginParams": a message of the platform to an app, wrapped in base64, and its answer. To the agent
// itself it is a message of the gateway link or a command of the app manager.

#include <cstring>

#include "arvok/app_messages.h"
#include "cloud_client/cloud_client.h"
#include "common/crypto.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

using blob_ptr = handle<blob_attr, &::free>;

// The words by which a command of the app manager is known, wherever in the text they stand.
bool is_app_command(const char *text) {
    return std::strstr(text, "CmdType") && std::strstr(text, "SequenceId");
}

text_ptr run_link_message(const char *text) {
    constexpr int failed = 10000;
    qzcap_printf("[INFO] (arvok) <- %s (%d)\n", text, _strlen(text));
    const json_ptr root = json_parse(text);
    reply_context context{1, 0, nullptr};
    handle_arvok_msg(root.get(), context);
    if (!context.reply)
        context.reply = json_object()
                            .text("type", "ack")
                            .number("errcode", failed)
                            .text("errmsg", "handle_arvok_msg failed")
                            .take();
    text_ptr answer = json_print(context.reply.get());
    qzcap_printf("[INFO] (arvok) -> %s (%d)\n", text_or_empty(answer.get()), _strlen(answer.get()));
    return answer;
}

// The command and its answer share one buffer, so the command goes in as a copy.
text_ptr run_app_command(const char *text) {
    qzcap_printf("[INFO] (extcc) <- %s (%d)\n", text, _strlen(text));
    blob_buf_init(&g_ctx.blob_buf, 0);
    const bool loaded = blobmsg_add_json_from_string(&g_ctx.blob_buf, text);
    const blob_ptr command(loaded ? blob_memdup(g_ctx.blob_buf.head) : nullptr);
    if (!command) {
        cc_set_fail_reason("load param failed");
        return nullptr;
    }
    arvok_postmsg(qzcap_get_ubus_context(), nullptr, nullptr, nullptr, command.get());
    return text_ptr(blobmsg_format_json_with_cb(g_ctx.blob_buf.head, true, nullptr, nullptr, -1));
}

text_ptr post_to_app(const char *name, const char *text) {
    qzcap_printf("[INFO] (%s) <- %s (%d)\n", name, text, _strlen(text));
    char *reason = nullptr;
    const qz_text answer(qzcap_app_postmsg(qzcap_get_ubus_context(), name, text, &reason));
    const qz_text errtext(reason);
    if (!answer)
        cc_set_fail_reason("qzcap_app_postmsg failed: %s", text_or_empty(errtext.get()));
    return _strdup(answer.get());
}

// The app's answer, or null with the failure reason set.
text_ptr deliver(const char *app_name, const char *text) {
    const bool self = _strcmp(app_name, self_app_name) == 0;
    if (self && !is_app_command(text))
        return run_link_message(text);
    if (!json_parse(text)) {
        cc_set_fail_reason("Parameter is not json format");
        return nullptr;
    }
    return self ? run_app_command(text) : post_to_app(app_name, text);
}

// The answer in base64, or null when there is none; the result says how it went.
json_ptr set_params(const cJSON *root) {
    const char *id = json_text(root, "Plugin_Name");
    const char *version = json_text(root, "Version");
    const char *parameter = json_text(root, "Parameter");
    if (!id || !version || !parameter) {
        cc_set_fail_reason("json format invalid");
        return nullptr;
    }
    char name[plugin_id_size];
    if (const int result = cc_find_plugin(id, version, name)) {
        cc->result = result;
        return nullptr;
    }
    text_ptr text;
    if (_do_b64_code(parameter, _strlen(parameter), text, false) < 0) {
        cc_set_fail_reason("Parameter base64 encode failed");
        return nullptr;
    }
    const text_ptr answer = deliver(name, text.get());
    if (!answer)
        return nullptr;
    cc->result = 0;
    text_ptr base64;
    _do_b64_code(answer.get(), _strlen(answer.get()), base64, true);
    return json_ptr(cJSON_CreateString(base64.get()));
}

}  // namespace

int cc_set_plugin_params(const cJSON *root) {
    cc->result = -1;
    ec->actions = 0;  // an earlier message's must not run again
    cc_reply(root, "return_Parameter", set_params(root));
    arvok_run_actions();
    return 1;
}

}  // namespace arvok
