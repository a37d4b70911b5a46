// The platform's requests about the device's apps, and what it is told of them.

#include <cstdlib>
#include <iterator>

#include "cloud_client/cloud_client.h"
#include "common/clock.h"
#include "common/crypto.h"
#include "common/identity.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

using applist_ptr = std::unique_ptr<qzcap_app *, release_list_with<&qzcap_free_applist>>;

// --- installing ---

// An installation that the platform library has under way; its callback owns it. Texts are cut.
struct install_record {
    char plugin_id[plugin_id_size];
    char app_name[plugin_id_size];
    char version[16];
    char url[256];
    int size;  // as the platform says; any base
    bool run;  // afterwards
    char os[16];
    char upgrade_id[16];
};
using install_ptr = std::unique_ptr<install_record>;

// Fills the record; false after setting the failure reason.
bool read_install(const cJSON *root, install_record &record) {
    const char *id = json_text(root, "Plugin_Name");
    const char *version = json_text(root, "Version");
    const char *url = json_text(root, "Download_url");
    const char *size = json_text(root, "Plugin_size");
    const char *run = json_text(root, "NeedRun");
    const char *os = json_text(root, "OS");
    const char *upgrade_id = json_text(root, "upgrade_ID");
    if (!id || !version || !url || !size || !run || !os || !upgrade_id) {
        cc_set_fail_reason("json format invalid");
        return false;
    }
    if (cc_parse_plugin_id(id, record.app_name) != 0) {
        cc_set_fail_reason("invalid Plugin_Name");
        return false;
    }
    _strlcpy(record.plugin_id, id, sizeof record.plugin_id);
    _strlcpy(record.version, version, sizeof record.version);
    drop_cut_character(record.version);
    _strlcpy(record.url, url, sizeof record.url);
    record.size = static_cast<int>(std::strtol(size, nullptr, 0));
    record.run = _strcmp(run, "1") == 0;
    _strlcpy(record.os, os, sizeof record.os);
    _strlcpy(record.upgrade_id, upgrade_id, sizeof record.upgrade_id);
    drop_cut_character(record.upgrade_id);
    return true;
}

void notify_installed(const install_record &record, const cJSON *outcome) {
    const int result = _get_json_int(outcome, "result", 0);
    cc_msg_ptr msg = cc_new_msg("InstallNotification");
    msg->wait_ack = 0;
    msg->root.text("ID", _get_uuid())
        .text("Time", _get_time())
        .text("Plugin_Name", record.plugin_id)
        .text("Version", record.version)
        .text("upgrade_ID", record.upgrade_id)
        .number("Result", result == 0 ? 0 : -1)
        .number("errcode", result);
    if (result != 0)
        msg->root.text("FailReason", json_text(outcome, "failreason"));
    cc_post(std::move(msg));
}

// What was installed should be what was ordered; it is not undone when it is not.
void compare_installed(const install_record &record, const cJSON *outcome) {
    const char *name = json_text(outcome, "name");
    const char *version = json_text(outcome, "version");
    if (_strcmp(name, record.app_name) != 0)
        qzcap_printf("[WARNING] plugin name mismatch, %s:%s\n", text_or_empty(name), record.app_name);
    if (_strcmp(version, record.version) != 0)
        qzcap_printf("[WARNING] plugin version mismatch, %s:%s\n", text_or_empty(version), record.version);
}

void run_installed(const install_record &record) {
    char *reason = nullptr;
    const int result = qzcap_run_app(qzcap_get_ubus_context(), record.app_name, &reason);
    const qz_text errtext(reason);
    if (result != 0)
        qzcap_printf("[WARNING] %s: qzcap_run_app failed: %s\n", "plugin_install_cb",
                     text_or_empty(errtext.get()));
}

// --- actions on an installed app ---

// The number of an action is its position; it is part of the failure reason.
constexpr int (*actions[])(ubus_context *, const char *, char **) = {
    qzcap_uninstall_app,
    qzcap_stop_app,
    qzcap_run_app,
    qzcap_restore_app,
};

// The result that the platform is told: 0, -1 or cc_check_plugin's.
int act(const cJSON *root, unsigned action) {
    const char *id = json_text(root, "Plugin_Name");
    const char *version = json_text(root, "Version");
    if (!id || !version) {
        cc_set_fail_reason("json format invalid");
        return -1;
    }
    char name[plugin_id_size];
    if (const int result = cc_find_plugin(id, version, name))
        return result;
    if (action >= std::size(actions)) {
        cc_set_fail_reason("unknown plugin action");
        return -1;
    }
    char *reason = nullptr;
    const int failed = actions[action](qzcap_get_ubus_context(), name, &reason);
    const qz_text errtext(reason);
    if (failed == 0)
        return 0;
    cc_set_fail_reason("qzacp app action %u failed: %s", action, text_or_empty(errtext.get()));
    return -1;
}

}  // namespace

int cc_install(const cJSON *root) {
    cc->result = -1;
    auto record = std::make_unique<install_record>();
    if (read_install(root, *record)) {
        if (qzcap_install_app(qzcap_get_ubus_context(), record->url, plugin_install_cb, record.get()) < 0) {
            cc_set_fail_reason("qzcap_install_app failed");
        } else {
            static_cast<void>(record.release());  // plugin_install_cb's from here on
            cc->result = 0;
        }
    }
    cc_reply(root);
    return 1;
}

void plugin_install_cb(ubus_request *req, blob_attr *msg) {
    const install_ptr record(req ? static_cast<install_record *>(req->priv) : nullptr);
    qzcap_printf("[INFO] %s (%d): \n", "plugin_install_cb", __LINE__);
    if (!req || !msg) {
        qzcap_printf("[WARNING] %s: req or msg is null\n", "plugin_install_cb");
        return;
    }
    if (!record) {
        qzcap_printf("[WARNING] %s: plugin_info is null\n", "plugin_install_cb");
        return;
    }
    const text_ptr text(blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1));
    qzcap_printf("[DEBUG] %s: %s\n", "plugin_install_cb", text_or_empty(text.get()));
    if (const json_ptr outcome = json_parse(text.get())) {
        notify_installed(*record, outcome.get());
        compare_installed(*record, outcome.get());
    } else {
        qzcap_printf("[WARNING] %s: msg is not json format\n", "plugin_install_cb");
    }
    if (record->run)
        run_installed(*record);
}

int cc_plugin_action(const cJSON *root, unsigned action) {
    cc->result = -1;
    cc->result = act(root, action);
    cc_reply(root);
    return 1;
}

int cc_uninstall(const cJSON *root) {
    return cc_plugin_action(root, 0);
}

int cc_stop(const cJSON *root) {
    return cc_plugin_action(root, 1);
}

int cc_run_plugin(const cJSON *root) {
    return cc_plugin_action(root, 2);
}

int cc_restore_plugin(const cJSON *root) {
    return cc_plugin_action(root, 3);
}

int cc_list_plugin(const cJSON *root) {
    cc->result = -1;
    unsigned int count = 0;
    qzcap_app **list = nullptr;
    if (qzcap_get_applist(qzcap_get_ubus_context(), &count, &list) < 0) {
        cc_set_fail_reason("qzcap_get_applist failed");
        cc_reply(root);
        return 1;
    }
    const applist_ptr apps(list, {count});
    json_ptr plugins(cJSON_CreateArray());
    for (unsigned int i = 0; i < count; i++) {
        const qzcap_app &app = *list[i];
        char id[plugin_id_size];
        gen_plugin_id(app.name, id);
        json_object plugin;
        plugin.text("Plugin_Name", id)
            .text("Version", app.version)
            .number("Run", _strcmp(app.state, "running") == 0);
        json_append(plugins.get(), plugin.take());
    }
    cc->result = 0;
    cc_reply(root, "Plugin", std::move(plugins));
    return 1;
}

void send_plugin_notification(const char *text) {
    text = text_or_empty(text);
    text_ptr base64;
    _do_b64_code(text, _strlen(text), base64, true);
    cc_msg_ptr msg = cc_new_msg("PluginNotification");
    msg->wait_ack = 0;
    msg->root.text("ID", _get_uuid())
        .text("Time", _get_time())
        .text("Plugin_Name", self_plugin_name)
        .text("Version", g_ctx.version)
        .text("Message", base64.get());
    cc_post(std::move(msg));
}

}  // namespace arvok
