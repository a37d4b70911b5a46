// Settings of the device itself: its software, roaming, access list, part in the mesh and television ports.

#include <algorithm>
#include <vector>

#include "arvok_client/handlers.h"
#include "arvok_client/request_members.h"
#include "common/identity.h"
#include "common/table.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

constexpr char own_package[] = "arvokclt";
constexpr std::size_t blacklist_max = 64;
constexpr int vlan_max = 4094;
constexpr int interval_max = 3600;  // seconds

// --- software ---

struct software {
    const char *url;
    std::uint32_t size;  // bytes
    const char *chksum;
};

bool read_software(const cJSON *value, software &image) {
    request_members members(value);
    image = {
        .url = members.text("downurl"), .size = members.size("fileSize"), .chksum = members.text("chksum")};
    return members.ok();
}

// The gateway was answered when the installation began; how it ended is for the log.
void client_upgrade_cb(ubus_request *, blob_attr *msg) {
    const text_ptr text(msg ? blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1) : nullptr);
    const json_ptr outcome = json_parse(text.get());
    const char *name = json_text(outcome.get(), "name");
    if (_get_json_int(outcome.get(), "result", -1) != 0)
        qzcap_printf("[ERROR] client upgrade failed: %s\n",
                     text_or_empty(json_text(outcome.get(), "failreason")));
    else if (_strcmp(name, own_package) != 0)
        qzcap_printf("[WARNING] client upgrade installed %s\n", text_or_empty(name));
    else
        qzcap_printf("[INFO] client upgrade installed %s %s\n", name,
                     text_or_empty(json_text(outcome.get(), "version")));
}

// --- roaming ---

using roaming_ptr = handle<qzcap_roaming, &qzcap_free_roaming>;

// Roaming between this device's radios, and within the mesh.
struct roaming_row {
    const char *name;
    qzcap_roaming *(*get)();
    const char *get_name;
    int (*set)(const qzcap_roaming *record, char **errtext);
    const char *set_name;
};

constexpr roaming_row own_roaming{"roaming_set", qzcap_get_roaming, "qzcap_get_roaming", qzcap_set_roaming,
                                  "qzcap_set_roaming"};
constexpr roaming_row mesh_roaming{"map_roaming_set", qzcap_get_mesh_roaming, "qzcap_get_mesh_roaming",
                                   qzcap_set_mesh_roaming, "qzcap_set_mesh_roaming"};

// What is left out stays as it is, but something must be there.
struct roaming_request {
    explicit roaming_request(const cJSON *value) : members(value) {
        if (members.has("enable"))
            enable = members.yes_no("enable");
        if (members.has("rssi2G"))
            rssi_2g = members.number("rssi2G", -100, 0);
        if (members.has("rssi5G"))
            rssi_5g = members.number("rssi5G", -100, 0);
        if (members.has("interval"))
            interval = members.number("interval", 1, interval_max);
    }

    bool empty() const {
        const auto has = [this](const char *name) { return members.has(name); };
        return !has("enable") && !has("rssi2G") && !has("rssi5G") && !has("interval");
    }

    void lay_over(qzcap_roaming &record) const {
        if (members.has("enable"))
            replace_text(record.enable, enable);
        if (members.has("rssi2G"))
            record.rssi_2g = rssi_2g;
        if (members.has("rssi5G"))
            record.rssi_5g = rssi_5g;
        if (members.has("interval"))
            record.interval = static_cast<std::uint32_t>(interval);
    }

    request_members members;
    const char *enable = nullptr;
    std::int32_t rssi_2g = 0, rssi_5g = 0, interval = 0;
};

void set_roaming_thresholds(const roaming_row &row, const cJSON *value) {
    roaming_request request(value);
    if (request.empty())
        request.members.refuse(row.name);
    if (!request.members.ok())
        return;
    const roaming_ptr record(row.get());
    if (!record)
        return arvok_set_error(err_platform, "%s failed", row.get_name);
    request.lay_over(*record);
    char *reason = nullptr;
    if (row.set(record.get(), &reason) < 0)
        arvok_set_platform_error(row.set_name, reason);
}

// --- access list ---

bool is_mac(const char *text) {
    char mac[18] = "";
    return text && _strlcpy(mac, text, sizeof mac) < sizeof mac && _convert_mac(mac) == 0;
}

// The MACs of the request; none is a valid list.
std::vector<const char *> read_macs(request_members &members) {
    std::vector<const char *> macs;
    const cJSON *list = members.array("mac");
    for (const cJSON *item = list ? list->child : nullptr; item; item = item->next) {
        const char *mac = cJSON_GetStringValue(item);
        if (!is_mac(mac) || macs.size() == blacklist_max) {
            members.refuse("mac");
            break;
        }
        macs.push_back(mac);
    }
    return macs;
}

// --- television ports ---

bool is_lan_port(double number) {
    if (const std::uint32_t *port = g_ctx.devinfo->lanports)
        for (; *port; port++)
            if (*port == number)
                return true;
    return false;
}

// The request's ports as the platform takes them: a zero behind the last. Each is one of the device's.
std::vector<std::uint32_t> read_ports(request_members &members, const cJSON *list) {
    std::vector<std::uint32_t> ports;
    for (const cJSON *item = list->child; item; item = item->next) {
        if (!cJSON_IsNumber(item) || !is_lan_port(item->valuedouble)) {
            members.refuse("ports");
            break;
        }
        ports.push_back(static_cast<std::uint32_t>(item->valuedouble));
    }
    ports.push_back(0);
    return ports;
}

struct action_word {
    const char *name;
    std::uint32_t actions;
};

// The control commands of those names; settings are stored as they are made, so that "save" has nothing to
// do.
constexpr action_word action_words[] = {{"reboot", action_reboot}, {"reset", action_reset}, {"save", 0}};

constexpr const char *mesh_roles[] = {"controller", "agent", "auto"};

}  // namespace

void set_upgrade(const cJSON *value) {
    software image;
    if (!read_software(value, image))
        return;
    char *reason = nullptr;
    if (qzcap_upgrade(image.url, image.size, image.chksum, &reason) < 0)
        arvok_set_platform_error("qzcap_upgrade", reason);
}

// The app manager checks a package by itself: it takes neither the size nor the checksum.
void set_upgrade_client(const cJSON *value) {
    software package;
    if (!read_software(value, package))
        return;
    if (qzcap_install_app(qzcap_get_ubus_context(), package.url, client_upgrade_cb, nullptr) < 0)
        arvok_set_error(err_platform, "qzcap_install_app failed");
}

void set_ctrlcommand(const cJSON *value) {
    const action_word *word = find_row(action_words, cJSON_GetStringValue(value));
    if (!word)
        return arvok_set_error(err_invalid_parameter, "invalid ctrlcommand");
    ec->actions |= word->actions;
}

void set_roaming_set(const cJSON *value) {
    set_roaming_thresholds(own_roaming, value);
}

void set_map_roaming_set(const cJSON *value) {
    set_roaming_thresholds(mesh_roaming, value);
}

void set_blacklist(const cJSON *value) {
    request_members members(value);
    const char *enable = members.yes_no("enable");
    const std::vector<const char *> macs = read_macs(members);
    if (!members.ok())
        return;
    char *reason = nullptr;
    if (qzcap_set_blacklist(enable, macs.data(), static_cast<unsigned>(macs.size()), &reason) < 0)
        arvok_set_platform_error("qzcap_set_blacklist", reason);
}

void set_map_role(const cJSON *value) {
    const char *role = cJSON_GetStringValue(value);
    if (std::none_of(std::begin(mesh_roles), std::end(mesh_roles),
                     [role](const char *known) { return _strcmp(role, known) == 0; }))
        return arvok_set_error(err_invalid_parameter, "invalid setMapRole");
    char *reason = nullptr;
    if (qzcap_set_mesh_role(role, &reason) < 0)
        arvok_set_platform_error("qzcap_set_mesh_role", reason);
}

void set_iptv(const cJSON *value) {
    request_members members(value);
    const char *enable = members.yes_no("enable");
    const std::int32_t vlan = members.number("vlan", 1, vlan_max);
    const cJSON *list = members.array("ports");
    if (!members.ok())
        return;
    if (update_dev_info() != 0)
        return arvok_set_error(err_platform, "qzcap_get_devinfo failed");
    std::vector<std::uint32_t> ports = read_ports(members, list);
    if (!members.ok())
        return;
    const qzcap_iptv record{.enable = const_cast<char *>(enable),  // only read
                            .vlan = static_cast<std::uint32_t>(vlan),
                            .ports = ports.data()};
    char *reason = nullptr;
    if (qzcap_set_iptv(&record, &reason) < 0)
        arvok_set_platform_error("qzcap_set_iptv", reason);
}

}  // namespace arvok
