// "cfg": the configuration message. Every row whose member is present in "set" runs, in the order of the
// table.

#include "arvok_client/handlers.h"
#include "common/table.h"

namespace arvok {
namespace {

struct config_row {
    const char *name;
    void (*setter)(const cJSON *value);
};

void set_whitelist(const cJSON *) {
    arvok_set_error(err_not_supported, "V2019.1.0 without this interface");
}

constexpr config_row rows[] = {
    {"wifi", set_wifi},
    {"wifitimer", set_wifitimer},
    {"ledswitch", set_ledswitch},
    {"wifiswitch", set_wifiswitch},
    {"wpsswitch", set_wpsswitch},
    {"syncswitch", set_syncswitch},
    {"upgrade", set_upgrade},
    {"upgrade_client", set_upgrade_client},
    {"ctrlcommand", set_ctrlcommand},
    {"roaming_set", set_roaming_set},
    {"map_roaming_set", set_map_roaming_set},
    {"blacklist", set_blacklist},
    {"whitelist", set_whitelist},
    {"real_devinfo", set_real_devinfo},
    {"setMapRole", set_map_role},
    {"iptv", set_iptv},
    {"speedlimit", set_speedlimit},
    {"eventsub", set_eventsub},
};

void run_rows(const cJSON *set) {
    bool any = false;
    for (const config_row &row : rows) {
        const cJSON *value = json_member(set, row.name);
        if (!value)
            continue;
        any = true;
        row.setter(value);
    }
    if (!any)
        arvok_set_error(err_not_supported, "unknown cfg set");
}

// As valid_envelope, with log texts that have never had a line feed.
bool valid_cfg_envelope(const cJSON *root, const reply_context &context) {
    if (context.from_cloud)
        return true;
    if (!cJSON_IsNumber(json_member(root, "sequence"))) {
        qzcap_printf("[ERROR] invalid sequence");
        return false;
    }
    if (!json_text(root, "mac")) {
        qzcap_printf("[ERROR] invalid mac");
        return false;
    }
    return true;
}

struct event_row {
    const char *name;
    std::uint32_t bit;
};

constexpr event_row events[] = {{"online", event_online},
                                {"offline", event_offline},
                                {"vsie", event_vsie},
                                {"rolechange", event_rolechange}};

}  // namespace

void set_eventsub(const cJSON *value) {
    if (!cJSON_IsArray(value))
        return arvok_set_error(err_invalid_parameter, "invalid eventsub");
    std::uint32_t mask = 0;
    for (const cJSON *item = value->child; item; item = item->next) {
        const char *name = cJSON_GetStringValue(item);
        const event_row *row = find_row(events, name);
        if (!row)
            return arvok_set_error(err_invalid_parameter, "invalid event \"%s\"", text_or_empty(name));
        mask |= row->bit;
    }
    ec->event_mask = mask;
}

int arvok_cfg(const cJSON *root, reply_context &context) {
    if (!valid_cfg_envelope(root, context))
        return 0;
    const cJSON *set = json_member(root, "set");
    if (!cJSON_IsObject(set)) {
        qzcap_printf("[ERROR] invalid set\n");
        return 0;
    }
    if (_strcmp(json_text(set, "mode"), "set") == 0)
        context.allow_bridge = 0;
    if (!ec->sync_on && context.allow_bridge != 0 && context.from_cloud != 1)
        arvok_set_error(err_sync_off, "arvoksync is off");
    else
        run_rows(set);
    context.reply = ack_reply(root);
    return 1;
}

}  // namespace arvok
