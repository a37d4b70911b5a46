#include "cloud/plugin_id.h"

#include "base/files.h"
#include "base/log.h"
#include "base/product.h"
#include "base/text.h"

namespace arvok::cloud {
namespace {

constexpr std::string_view id_prefix = "com.marobelvinta.all.smartap.";
constexpr std::size_t id_max = 127;
constexpr std::size_t name_max = 31;
constexpr std::size_t control_value_max = 127;

constexpr std::string_view architecture = product_architecture;

// A name goes into paths, here and in the platform: it must not lead out of their folders, nor to a hidden
// one.
bool is_app_name(std::string_view name) {
    return !name.starts_with('.') && name.find('/') == std::string_view::npos;
}

// Empty also for what is no app's name.
std::string read_control(std::string_view app_name, const char *key) {
    if (!is_app_name(app_name))
        return {};
    std::string path = "/qzcap/apps/qzcap/apps/opkg/info/";
    path.append(app_name).append(".control");
    return std::string(cut(control_value(path, key), control_value_max));
}

std::string make_id(std::string_view app_name) {
    return std::string(id_prefix).append(app_name).append("_").append(architecture);
}

// The same with the device's vendor, as far as an identifier has room for it.
std::string make_vendor_id(std::string_view app_name, std::string_view vendor) {
    return std::string(cut(make_id(app_name).append("_").append(vendor), id_max));
}

bool is_self(std::string_view plugin_name, std::string_view vendor) {
    if (plugin_name == self_plugin_name)
        return true;
    const std::optional<std::string> name = app_of_plugin(plugin_name, vendor);
    return name && (*name == self_plugin_name || *name == self_app_name);
}

// What is found of an app; the platform is told the number.
enum class finding {
    installed = 0,
    mismatch = -1,       // the identifier is not the installed app's
    other_version = -6,  // installed in another version
    not_installed = -14,
};

// Whether the app of that identifier is installed in that version. The vendor may stand behind every app.
finding check_installed(std::string_view id, std::string_view version, std::string_view name,
                        std::string_view vendor) {
    const std::string package = read_control(name, "Package"), installed = read_control(name, "Version");
    if (package.empty())
        return finding::not_installed;
    if (const std::string expected = make_id(package);
        id != expected && id != make_vendor_id(package, vendor)) {
        log_printf("[ERROR] plugin id mismatch, [%s]:[%s]\n", std::string(id).c_str(), expected.c_str());
        return finding::mismatch;
    }
    if (version != installed) {
        log_printf("[ERROR] plugin version mismatch, [%s]:[%s]\n", std::string(version).c_str(),
                   installed.c_str());
        return finding::other_version;
    }
    return finding::installed;
}

}  // namespace

std::optional<std::string> app_of_plugin(std::string_view id, std::string_view vendor) {
    if (id.size() > id_max) {
        log_printf("[ERROR] plugin id is too long\n");
        return std::nullopt;
    }
    if (!id.starts_with(id_prefix)) {
        log_printf("[ERROR] plugin id prefix mismatch\n");
        return std::nullopt;
    }
    const std::string rest(id.substr(id_prefix.size()));
    const std::size_t at = rest.find(architecture);
    if (at == std::string::npos) {
        log_printf("[ERROR] plugin arch mismatch, [%s]:[%s]\n", rest.c_str(), product_architecture);
        return std::nullopt;
    }
    const std::string end = rest.substr(at + architecture.size());
    if (end.starts_with('_') && end.substr(1) != cut(vendor, id_max - (id.size() - end.size() + 1))) {
        log_printf("[ERROR] plugin vendor mismatch, [%s]:[%s]\n", end.c_str() + 1,
                   std::string(vendor).c_str());
        return std::nullopt;
    }
    if (at < 2 || at > name_max + 1) {
        log_printf("[ERROR] plugin name is too long\n");
        return std::nullopt;
    }
    if (rest[at - 1] != '_') {
        log_printf("[ERROR] plugin id is invalid\n");
        return std::nullopt;
    }
    std::string name = rest.substr(0, at - 1);
    if (!is_app_name(name)) {
        log_printf("[ERROR] plugin name is invalid\n");
        return std::nullopt;
    }
    return name;
}

std::optional<std::string> find_plugin(std::string_view id, std::string_view version, std::string_view vendor,
                                       outcome &result) {
    if (is_self(id, vendor))
        return self_app_name;
    std::optional<std::string> name = app_of_plugin(id, vendor);
    if (!name) {
        result.fail("invalid plugin name");
        return std::nullopt;
    }
    if (const finding found = check_installed(id, version, *name, vendor); found != finding::installed) {
        result.code = static_cast<int>(found);
        return std::nullopt;
    }
    return name;
}

std::string plugin_of_app(std::string_view app_name, std::string_view vendor) {
    if (read_control(app_name, "NeedGWVendor") == "1")
        return make_vendor_id(app_name, vendor);
    return std::string(cut(make_id(app_name), id_max));
}

}  // namespace arvok::cloud
