// The platform's messages by name: acknowledgements of what the device sent, and requests.

#include "cloud_client/cloud_client.h"
#include "common/table.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

int install_notification_ack(const cJSON *) {
    return 1;
}

struct ack_row {
    const char *name;
    int (*handler)(const cJSON *root);
    bool in_handshake;  // else what it acknowledges is sent when connected only
};

constexpr ack_row acks[] = {
    {"Boot", cc_boot_ack, true},
    {"GetChallengeCode", cc_challenge_ack, true},
    {"Activate", cc_activate_ack, true},
    {"Connect", cc_connect_ack, true},
    {"Heartbeat", cc_heartbeat_ack, false},
    {"InstallNotification", install_notification_ack, false},
};

struct request_row {
    const char *name;
    int (*handler)(const cJSON *root);
};

constexpr request_row requests[] = {
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

// An acknowledgement that is not handled leaves the deadline running, and so does a stray one of what is only
// sent when connected: in the middle of the handshake there is no other timer.
void handle_ack(const char *name, const cJSON *root) {
    const ack_row *row = find_row(acks, name);
    if (!row) {
        qzcap_printf("[ERROR] (cloud) unknown Ack type: %s\n", name);
        return log_invalid();
    }
    const bool awaited = row->in_handshake || cc->status == cc_connected;
    const int handled = row->handler(root);
    if (handled != 0 && awaited)
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
    const request_row *row = find_row(requests, method);
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
