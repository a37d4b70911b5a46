// The platform's messages by name: acknowledgements of what the device sent, and requests.

#include "cloud_client/cloud_client.h"
#include "common/table.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

struct msg_row {
    const char *name;
    int (*handler)(const cJSON *root);
};

int install_notification_ack(const cJSON *) {
    return 1;
}

constexpr msg_row acks[] = {
    {"Boot", cc_boot_ack},           {"GetChallengeCode", cc_challenge_ack},
    {"Activate", cc_activate_ack},   {"Connect", cc_connect_ack},
    {"Heartbeat", cc_heartbeat_ack}, {"InstallNotification", install_notification_ack},
};

constexpr msg_row requests[] = {
    {"RequestConnectBSS", cc_request_connect_bss},
    {"Install", cc_install},
    {"Uninstall", cc_uninstall},
    {"Stop", cc_stop},
    {"Run", cc_run_plugin},
    {"RestorePlugin", cc_restore_plugin},
    {"ListPlugin", cc_list_plugin},
    {"SetPluginParams", cc_set_plugin_params},
};

void log_invalid() {
    qzcap_printf("[ERROR] (cloud) invalid server msg\n");
}

// An acknowledgement that is not handled leaves its deadline running.
void handle_ack(const char *name, const cJSON *root) {
    const msg_row *row = find_row(acks, name);
    if (!row) {
        qzcap_printf("[ERROR] (cloud) unknown Ack type: %s\n", name);
        return log_invalid();
    }
    const int handled = row->handler(root);
    if (handled != 0)
        uloop_timeout_cancel(&cc->ack_timer);
    if (handled != 1)
        log_invalid();
}

void handle_request(const cJSON *root) {
    const char *method = json_text(root, "RPCMethod");
    if (!method || !json_text(root, "ID")) {
        qzcap_printf("[ERROR] (cloud) RPCMethod or ID not found\n");
        return log_invalid();
    }
    const msg_row *row = find_row(requests, method);
    if (!row) {
        cc->result = -1;
        cc_set_fail_reason("UNRECOGNIZE_REQUEST");
        return cc_reply(root);
    }
    if (row->handler(root) != 1)
        log_invalid();
}

}  // namespace

void cc_handle_msg(const cJSON *root) {
    cc->result = 0;
    cc->fail_reason[0] = '\0';
    if (const char *ack = json_text(root, "Ack"))
        handle_ack(ack, root);
    else
        handle_request(root);
}

void cc_reply(const cJSON *request, const char *key, json_ptr item) {
    json_object reply;
    reply.text("Ack", json_text(request, "RPCMethod"))
        .text("ID", json_text(request, "ID"))
        .number("Result", cc->result);
    if (cc->result != 0 && cc->fail_reason[0])
        reply.text("FailReason", cc->fail_reason);
    if (key && item)
        reply.add(key, std::move(item));
    cc_write(reply.get());
}

}  // namespace arvok
