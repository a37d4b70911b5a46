// Settings of the device itself: its software, roaming, access list, part in the mesh and television ports.

#include <algorithm>
#include <memory>
#include <utility>

#include "base/bus_message.h"
#include "base/hex.h"
#include "base/log.h"
#include "base/table.h"
#include "gateway/request_members.h"
#include "gateway/settings.h"

namespace arvok::gateway {
namespace {

constexpr char own_package[] = "arvokclt";
constexpr unsigned upgrades_max = 16;  // there are app managers that never end one
constexpr std::size_t blacklist_max = 64;
constexpr int vlan_max = 4094;
constexpr std::size_t ports_max = 32;
constexpr int interval_max = 3600;  // seconds

// --- software ---

struct software {
    explicit software(request_members &members)
        : url(members.text("downurl")), size(members.size("fileSize")), chksum(members.text("chksum")) {}

    std::string_view url;
    std::uint32_t size;  // bytes
    std::string_view chksum;
};

// One more that the app manager has under way; its callback owns it.
class counted_upgrade {
  public:
    explicit counted_upgrade(std::shared_ptr<unsigned> count) : count_(std::move(count)) { ++*count_; }
    ~counted_upgrade() { --*count_; }
    counted_upgrade(const counted_upgrade &) = delete;
    counted_upgrade &operator=(const counted_upgrade &) = delete;

  private:
    const std::shared_ptr<unsigned> count_;
};

// The gateway was answered when the installation began; how it ended is for the log. An app is left stopped
// by its installation. Starting the agent's may end this process: nothing is left to do behind it.
void client_installed(ubus_request *request, blob_attr *message) {
    const std::unique_ptr<counted_upgrade> ended(request ? static_cast<counted_upgrade *>(request->priv)
                                                         : nullptr);
    const json::document outcome = json::parse(json_of(message).value_or(""));
    const std::string_view name = outcome["name"].text().value_or("");
    ubus_context *const bus = qzcap_get_ubus_context();
    platform::reason why;
    if (outcome["result"].integer() != 0) {
        log_printf("[ERROR] client upgrade failed: %s\n", outcome["failreason"].text().value_or("").data());
    } else if (name == own_package) {
        log_printf("[INFO] client upgrade installed %s %s\n", name.data(),
                   outcome["version"].text().value_or("").data());
        if (platform::call(qzcap_run_app, bus, own_package, why) != 0)
            log_printf("[ERROR] client upgrade: qzcap_run_app failed: %s\n", why.c_str());
    } else {
        log_printf("[ERROR] client upgrade installed %s\n", name.data());
        if (!name.empty() && platform::call(qzcap_uninstall_app, bus, name.data(), why) != 0)
            log_printf("[ERROR] client upgrade: qzcap_uninstall_app failed: %s\n", why.c_str());
    }
}

// --- roaming ---

using roaming_record = handle<qzcap_roaming, &qzcap_free_roaming>;

// Roaming between this device's radios, and within the mesh.
struct roaming_row {
    const char *name;
    qzcap_roaming *(*get)();
    const char *get_failure;
    int (*set)(const qzcap_roaming *record, char **errtext);
    const char *set_failure;
};

constexpr roaming_row own_roaming{"roaming_set", qzcap_get_roaming, "qzcap_get_roaming failed",
                                  qzcap_set_roaming, "qzcap_set_roaming failed"};
constexpr roaming_row mesh_roaming{"map_roaming_set", qzcap_get_mesh_roaming, "qzcap_get_mesh_roaming failed",
                                   qzcap_set_mesh_roaming, "qzcap_set_mesh_roaming failed"};

// What is left out stays as it is.
struct roaming_request {
    explicit roaming_request(request_members &members) {
        if (members.has("enable"))
            enable = members.yes_no("enable");
        if (members.has("rssi2G"))
            rssi_2g = members.number("rssi2G", -100, 0);
        if (members.has("rssi5G"))
            rssi_5g = members.number("rssi5G", -100, 0);
        if (members.has("interval"))
            interval = members.number("interval", 1, interval_max);
    }

    bool empty() const { return !enable && !rssi_2g && !rssi_5g && !interval; }

    void lay_over(qzcap_roaming &record) const {
        if (enable)
            platform::replace_text(record.enable, *enable);
        record.rssi_2g = rssi_2g.value_or(record.rssi_2g);
        record.rssi_5g = rssi_5g.value_or(record.rssi_5g);
        if (interval)
            record.interval = static_cast<std::uint32_t>(*interval);
    }

    std::optional<std::string_view> enable;
    std::optional<std::int32_t> rssi_2g, rssi_5g, interval;
};

void set_thresholds(request &r, const roaming_row &row, json::view value) {
    request_members members(r, value);
    const roaming_request given(members);
    if (given.empty())
        members.refuse(row.name);
    if (!members.ok())
        return;
    const roaming_record record(platform::call(row.get));
    if (!record)
        return r.fail(platform_failed, "%s", row.get_failure);
    given.lay_over(*record);
    platform::reason why;
    if (platform::call(row.set, record.get(), why) < 0)
        r.fail(platform_failed, "%s: %s", row.set_failure, why.c_str());
}

// --- access list ---

// The MACs of the request, each once and in the platform's spelling; none is a valid list.
std::vector<std::string> read_macs(request_members &members) {
    std::vector<std::string> macs;
    for (const json::view element : members.array("mac")) {
        const std::string_view given = element.text().value_or("");
        std::string mac = normalised_mac(given);
        if (is_mac(given) && std::find(macs.begin(), macs.end(), mac) != macs.end())
            continue;
        if (!is_mac(given) || macs.size() == blacklist_max) {
            members.refuse("mac");
            break;
        }
        macs.push_back(std::move(mac));
    }
    return macs;
}

// --- television ports ---

// The request's ports as the platform takes them: each once, a zero behind the last. Each is one of
// `lan_ports`, the device's own, which also end with a zero; null is none.
std::vector<std::uint32_t> read_ports(request_members &members, json::view list,
                                      const std::uint32_t *lan_ports) {
    const auto is_lan_port = [lan_ports](double number) {
        for (const std::uint32_t *port = lan_ports; port && *port; port++)
            if (*port == number)
                return true;
        return false;
    };
    std::vector<std::uint32_t> ports;
    for (const json::view element : list) {
        const std::optional<double> number = element.number();
        if (!number || !is_lan_port(*number)) {
            members.refuse("ports");
            break;
        }
        const auto port = static_cast<std::uint32_t>(*number);
        if (std::find(ports.begin(), ports.end(), port) == ports.end())
            ports.push_back(port);
    }
    if (ports.size() > ports_max)
        members.refuse("ports");
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

constexpr std::string_view mesh_roles[] = {"controller", "agent", "auto"};

}  // namespace

void set_upgrade(request &r, json::view value) {
    request_members members(r, value);
    const software image(members);
    platform::reason why;
    if (members.ok() &&
        platform::call(qzcap_upgrade, image.url.data(), image.size, image.chksum.data(), why) < 0)
        r.fail(platform_failed, "qzcap_upgrade failed: %s", why.c_str());
}

// The app manager checks a package by itself: it takes neither the size nor the checksum.
void set_upgrade_client(request &r, json::view value) {
    request_members members(r, value);
    const software package(members);
    if (!members.ok())
        return;
    if (*r.services.upgrades >= upgrades_max)
        return r.fail(platform_failed, "too many");
    auto begun = std::make_unique<counted_upgrade>(r.services.upgrades);
    if (platform::call(qzcap_install_app, qzcap_get_ubus_context(), package.url.data(), client_installed,
                       begun.get()) < 0)
        return r.fail(platform_failed, "qzcap_install_app failed");
    static_cast<void>(begun.release());  // client_installed's from here on
}

void set_ctrlcommand(request &r, json::view value) {
    const action_word *word = find_row(action_words, value.text().value_or(""));
    if (!word)
        return r.fail(invalid_parameter, "invalid ctrlcommand");
    r.actions |= word->actions;
}

void set_roaming(request &r, json::view value) {
    set_thresholds(r, own_roaming, value);
}

void set_mesh_roaming(request &r, json::view value) {
    set_thresholds(r, mesh_roaming, value);
}

void set_blacklist(request &r, json::view value) {
    request_members members(r, value);
    const std::string_view enable = members.yes_no("enable");
    const std::vector<std::string> listed = read_macs(members);
    if (!members.ok())
        return;
    std::vector<const char *> macs(listed.size());
    std::transform(listed.begin(), listed.end(), macs.begin(),
                   [](const std::string &mac) { return mac.c_str(); });
    platform::reason why;
    if (platform::call(qzcap_set_blacklist, enable.data(), macs.data(), static_cast<unsigned>(macs.size()),
                       why) < 0)
        r.fail(platform_failed, "qzcap_set_blacklist failed: %s", why.c_str());
}

void set_map_role(request &r, json::view value) {
    const std::optional<std::string_view> role = value.text();
    if (std::find(std::begin(mesh_roles), std::end(mesh_roles), role) == std::end(mesh_roles))
        return r.fail(invalid_parameter, "invalid setMapRole");
    platform::reason why;
    if (platform::call(qzcap_set_mesh_role, role->data(), why) < 0)
        r.fail(platform_failed, "qzcap_set_mesh_role failed: %s", why.c_str());
}

void set_iptv(request &r, json::view value) {
    request_members members(r, value);
    const std::string_view enable = members.yes_no("enable");
    const std::int32_t vlan = members.number("vlan", 1, vlan_max);
    const json::view list = members.array("ports");
    if (!members.ok())
        return;
    if (!r.services.cache.refresh_device())
        return r.fail(platform_failed, "qzcap_get_devinfo failed");
    std::vector<std::uint32_t> ports = read_ports(members, list, r.services.cache.device().lanports);
    if (!members.ok())
        return;
    const qzcap_iptv record{
        .enable = platform::lent(enable), .vlan = static_cast<std::uint32_t>(vlan), .ports = ports.data()};
    platform::reason why;
    if (platform::call(qzcap_set_iptv, &record, why) < 0)
        r.fail(platform_failed, "qzcap_set_iptv failed: %s", why.c_str());
}

}  // namespace arvok::gateway
