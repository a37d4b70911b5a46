#include "arvok/app_messages.h"

#include "cloud_client/cloud_client.h"
#include "common/table.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

constexpr std::size_t status_text_size = 128;

// --- GET_STATUS ---

void get_status(const cJSON *) {
    char server[status_text_size] = "", status[status_text_size] = "";
    get_cloud_status(server, sizeof server, status, sizeof status);
    void *agent = blobmsg_open_nested(&g_ctx.blob_buf, "arvokclt", false);
    add_reply_text("tul", get_tul_version());
    add_reply_text("addr", server);
    add_reply_text("status", status);
    add_reply_int("arvok_status", ec->linked);
    add_reply_int("debug", g_ctx.debug);
    void *timers = blobmsg_open_nested(&g_ctx.blob_buf, "timer", false);
    add_reply_int("connect", uloop_timeout_remaining(&cc->reconnect_timer));
    add_reply_int("heartbeat", uloop_timeout_remaining(&cc->heartbeat_timer));
    add_reply_int("ack", uloop_timeout_remaining(&cc->ack_timer));
    blob_nest_end(&g_ctx.blob_buf, timers);
    blob_nest_end(&g_ctx.blob_buf, agent);
}

// --- entry ---

struct command_row {
    const char *name;
    void (*handler)(const cJSON *root);
};

constexpr command_row pm_hds[] = {
    {"GET_STATUS", get_status},
};

void refuse(const char *reason, const char *status) {
    add_reply_text("FailReason", reason);
    add_reply_text("Status", status);
}

void build_reply(blob_attr *msg) {
    const text_ptr text(msg ? blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1) : nullptr);
    if (!text)
        return refuse("invalid msg, not json format", "-1");
    const json_ptr root = json_parse(text.get());
    const char *command = json_text(root.get(), "CmdType");
    if (!command)
        return refuse("invalid msg, CmdType", "-2");
    add_reply_text("CmdType", command);
    add_reply_text("SequenceId", json_text(root.get(), "SequenceId"));
    if (const command_row *row = find_row(pm_hds, command))
        return row->handler(root.get());
    add_reply_text("Status", "-2");
    add_reply_text("FailReason", "unknown CmdType");
}

}  // namespace

int arvok_postmsg(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *,
                  blob_attr *msg) {
    blob_buf_init(&g_ctx.blob_buf, 0);
    build_reply(msg);
    if (request)
        ubus_send_reply(ctx, request, g_ctx.blob_buf.head);
    return 0;
}

void add_reply_text(const char *name, const char *text) {
    blobmsg_add_string(&g_ctx.blob_buf, name, text_or_empty(text));
}

void add_reply_int(const char *name, int value) {
    blobmsg_add_u32(&g_ctx.blob_buf, name, static_cast<std::uint32_t>(value));
}

}  // namespace arvok
