// The gateway link's messages by type, their errors and their acknowledgements.

#include <cstdarg>

#include "arvok_client/handlers.h"
#include "common/table.h"
#include "context.h"

namespace arvok {
namespace {

constexpr int keepalive_ms = 5000;

// The first reports follow the first acknowledgement that is not a keepalive's.
void send_first_reports() {
    ec->reports_pending = 0;
    g_ctx.waninfo_valid = 0;
    if (update_wan_info() == 0) {
        const json_ptr event =
            json_object().text("ipaddr", g_ctx.waninfo->ipaddr).text("status", "up").take();
        send_arvok_wan_report(event.get());
    } else {
        qzcap_printf("[ERROR] update_wan_info failed\n");
    }
    send_arvok_lan_report();
}

// A keepalive's acknowledgement is not "consumed": it must not end the wait for another message's.
int arvok_ack(const cJSON *root, reply_context &context) {
    if (context.from_cloud)
        return 0;
    if (arvok_is_keepalive_ack(root)) {
        uloop_timeout_cancel(&ec->keepalive_ack_timer);
        uloop_timeout_set(&ec->keepalive_timer, keepalive_ms);
        return 0;
    }
    if (ec->reports_pending)
        send_first_reports();
    return 1;
}

struct type_row {
    const char *name;
    int (*handler)(const cJSON *root, reply_context &context);
};

constexpr type_row types[] = {
    {"keyngack", arvok_keyngack},
    {"dh", arvok_dh},
    {"ack", arvok_ack},
    {"cfg", arvok_cfg},
    {"get_status", arvok_get_status},
    {"control", arvok_control},
    {"deassociation", arvok_deassociation},
    {"getrssiinfo", arvok_getrssiinfo},
    {"qlink", arvok_qlink},
    {"startaprssiquery", arvok_startaprssiquery},
    {"startstabsstransitionrequest", arvok_startstabsstransitionrequest},
    {"ubus_call", arvok_ubus_call},
    {"ubus_subscribe", arvok_ubus_subscribe},
};

void reset_message_state() {
    ec->actions = 0;
    ec->errcode = 0;
    ec->errmsg[0] = '\0';
    invalidate_device_info();
}

void send_reply(json_ptr reply) {
    auto msg = std::make_unique<arvok_msg>();
    msg->root = json_object(std::move(reply));
    msg->ack_timeout = 0;
    arvok_send(msg.release());
}

void switch_to_bridge(const reply_context &context) {
    if ((ec->actions & action_bridge) && g_ctx.is_router && context.allow_bridge == 1) {
        char *reason = nullptr;
        const int result = qzcap_set_workmode("bridge", &reason);
        const qz_text errtext(reason);
        if (result < 0)
            qzcap_printf("[ERROR] qzcap_set_workmode failed: %s\n", text_or_empty(errtext.get()));
    }
}

void record_error(int code, const char *format, va_list args) {
    format_cut(ec->errmsg, sizeof ec->errmsg, format, args);
    ec->errcode = code;
    qzcap_printf("[ERROR] (%d) %s\n", code, ec->errmsg);
}

}  // namespace

int handle_arvok_msg(const cJSON *root, reply_context &context) {
    reset_message_state();
    const char *type = json_text(root, "type");
    if (!type) {
        qzcap_printf("[ERROR] (arvok) type not found\n");
        return 0;
    }
    const type_row *row = find_row(types, type);
    if (!row) {
        qzcap_printf("[ERROR] (arvok) unknown type: %s\n", type);
        return 0;
    }
    const int result = row->handler(root, context);
    if (result == 0)
        return 0;
    uloop_timeout_cancel(&ec->ack_timer);
    if (context.from_cloud)
        return result;
    if (context.reply)
        send_reply(std::move(context.reply));
    arvok_run_actions();
    switch_to_bridge(context);
    return result;
}

// In this order, whatever the order of the commands was.
void arvok_run_actions() {
    if ((ec->actions & action_reset) && qzcap_reset() < 0)
        qzcap_printf("[ERROR] qzcap_reset failed\n");
    if ((ec->actions & action_reboot) && qzcap_reboot() < 0)
        qzcap_printf("[ERROR] qzcap_reboot failed\n");
}

bool valid_envelope(const cJSON *root, const reply_context &context) {
    if (context.from_cloud)
        return true;
    if (!cJSON_IsNumber(json_member(root, "sequence"))) {
        qzcap_printf("[ERROR] invalid sequence\n");
        return false;
    }
    if (!json_text(root, "mac")) {
        qzcap_printf("[ERROR] invalid mac\n");
        return false;
    }
    return true;
}

json_object reply_to(const cJSON *root, const char *type) {
    const cJSON *sequence = json_member(root, "sequence");
    json_object reply;
    reply.text("type", type).number("sequence", cJSON_IsNumber(sequence) ? sequence->valuedouble : 0);
    reply.text("mac", own_mac());
    return reply;
}

json_ptr ack_reply(const cJSON *root) {
    return reply_to(root, "ack").number("errcode", ec->errcode).text("errmsg", ec->errmsg).take();
}

void arvok_set_error(int code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    record_error(code, format, args);
    va_end(args);
}

void arvok_set_platform_error(const char *call, char *reason) {
    const qz_text text(reason);
    arvok_set_error(err_platform, "%s failed: %s", call, text_or_empty(text.get()));
}

json_ptr arvok_error_item(int code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    record_error(code, format, args);
    va_end(args);
    return json_object().text("errmsg", ec->errmsg).take();
}

}  // namespace arvok
