// "cfg": the configuration message. Every row whose member is present in "set" runs, in the order of the
// table.

#include "base/log.h"
#include "base/table.h"
#include "gateway/handlers.h"
#include "gateway/settings.h"

namespace arvok::gateway {
namespace {

struct event_row {
    const char *name;
    event_bit bit;
};

constexpr event_row events[] = {{"online", event_online},
                                {"offline", event_offline},
                                {"vsie", event_vsie},
                                {"rolechange", event_rolechange}};

// The list replaces what was subscribed to before.
void set_eventsub(request &r, json::view value) {
    if (!value.is_array())
        return r.fail(invalid_parameter, "invalid eventsub");
    std::uint32_t subscribed = 0;
    for (const json::view element : value) {
        const std::optional<std::string_view> name = element.text();
        const event_row *row = name ? find_row(events, *name) : nullptr;
        if (!row)
            return r.fail(invalid_parameter, "invalid event \"%s\"", name.value_or("").data());
        subscribed |= row->bit;
    }
    r.services.link.events = subscribed;
}

void set_whitelist(request &r, json::view) {
    r.fail(not_supported, "V2019.1.0 without this interface");
}

struct setting_row {
    const char *name;
    void (*set)(request &, json::view value);
};

constexpr setting_row settings[] = {
    {"wifi", set_wifi},
    {"wifitimer", set_wifitimer},
    {"ledswitch", set_ledswitch},
    {"wifiswitch", set_wifiswitch},
    {"wpsswitch", set_wpsswitch},
    {"syncswitch", set_syncswitch},
    {"upgrade", set_upgrade},
    {"upgrade_client", set_upgrade_client},
    {"ctrlcommand", set_ctrlcommand},
    {"roaming_set", set_roaming},
    {"map_roaming_set", set_mesh_roaming},
    {"blacklist", set_blacklist},
    {"whitelist", set_whitelist},
    {"real_devinfo", set_real_devinfo},
    {"setMapRole", set_map_role},
    {"iptv", set_iptv},
    {"speedlimit", set_speedlimit},
    {"eventsub", set_eventsub},
};

void run_settings(request &r, json::view set) {
    bool any = false;
    for (const setting_row &row : settings)
        if (const json::view value = set[row.name]) {
            any = true;
            row.set(r, value);
        }
    if (!any)
        r.fail(not_supported, "unknown cfg set");
}

// As request::has_envelope, with log texts that have never had a line feed.
bool has_cfg_envelope(const request &r) {
    if (r.from_cloud)
        return true;
    if (!r.root["sequence"].is_number()) {
        log_printf("[ERROR] invalid sequence");
        return false;
    }
    if (!r.root["mac"].is_text()) {
        log_printf("[ERROR] invalid mac");
        return false;
    }
    return true;
}

}  // namespace

bool handle_cfg(request &r) {
    if (!has_cfg_envelope(r))
        return false;
    const json::view set = r.root["set"];
    if (!set.is_object()) {
        log_printf("[ERROR] invalid set\n");
        return false;
    }
    if (set["mode"].text() == "set")
        r.allow_bridge = false;
    if (!r.services.link.sync_on && r.allow_bridge && !r.from_cloud)
        r.fail(sync_off, "arvoksync is off");
    else
        run_settings(r, set);
    r.acknowledge();
    return true;
}

}  // namespace arvok::gateway
