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
    const reply_table agent("arvokclt");
    add_reply_text("tul", get_tul_version());
    add_reply_text("addr", server);
    add_reply_text("status", status);
    add_reply_int("arvok_status", ec->linked);
    add_reply_int("debug", g_ctx.debug);
    const reply_table timers("timer");
    add_reply_int("connect", uloop_timeout_remaining(&cc->reconnect_timer));
    add_reply_int("heartbeat", uloop_timeout_remaining(&cc->heartbeat_timer));
    add_reply_int("ack", uloop_timeout_remaining(&cc->ack_timer));
}

// --- entry ---

struct command_row {
    const char *name;
    void (*handler)(const cJSON *root);
};

constexpr command_row pm_hds[] = {
    {"GET_LANHOST_INFO", get_lanhost_info},
    {"SET_LANHOST_TIMER", set_lanhost_timer},
    {"GET_LANHOST_TIMER", get_lanhost_timer},
    {"SET_LANHOST_INTERNET", set_lanhost_internet},
    {"GET_LANHOST_INTERNET", get_lanhost_internet},
    {"SET_LANHOST_BANDWIDTH", set_lanhost_bandwidth},
    {"GET_LANHOST_BANDWIDTH", get_lanhost_bandwidth},
    {"SET_GUEST_WIFI", set_guest_wifi},
    {"GET_GUEST_WIFI", get_guest_wifi},
    {"DELETE_GUEST_WIFI", delete_guest_wifi},
    {"SET_GUEST_WIFI_CLOSE_TIMER", set_guest_wifi_close_timer},
    {"EXTCC_DUMP", extcc_dump},
    {"GET_STATUS", get_status},
};

void build_reply(blob_attr *msg) {
    const text_ptr text(msg ? blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1) : nullptr);
    if (!text)
        return add_reply_outcome("invalid msg, not json format", "-1");
    const json_ptr root = json_parse(text.get());
    const char *command = json_text(root.get(), "CmdType");
    if (!command)
        return add_reply_outcome("invalid msg, CmdType", "-2");
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

void add_reply_outcome(const char *reason, const char *status) {
    add_reply_text("FailReason", reason);
    add_reply_text("Status", status);
}

void add_reply_success() {
    add_reply_text("Status", "0");
    add_reply_text("FailReason", "");
}

reply_nest::reply_nest(const char *name, bool array)
    : cookie_(blobmsg_open_nested(&g_ctx.blob_buf, name, array)) {}

reply_nest::~reply_nest() {
    if (cookie_)  // else there was no room for it
        blob_nest_end(&g_ctx.blob_buf, cookie_);
}

}  // namespace arvok
