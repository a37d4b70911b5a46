// What the platform calls an app, and which installed app it means.

#include <cstdio>
#include <cstring>

#include "cloud_client/cloud_client.h"
#include "common/files.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr char id_prefix[] = "com.marobelvinta.all.smartap.";
constexpr int id_prefix_len = sizeof id_prefix - 1;
constexpr std::ptrdiff_t name_max = 31;

constexpr std::size_t control_value_size = 128;
constexpr std::size_t need_vendor_size = 8 + 1;

void read_control(const char *app_name, const char *key, char *value, std::size_t size) {
    char path[256];
    std::snprintf(path, sizeof path, "/qzcap/apps/qzcap/apps/opkg/info/%s.control", app_name);
    value[0] = '\0';
    _get_control(path, key, value, size);
}

const char *device_vendor() {
    return text_or_empty(g_ctx.devinfo ? g_ctx.devinfo->vendor : nullptr);
}

}  // namespace

int cc_parse_plugin_id(const char *id, char *name) {
    if (_strlen(id) >= static_cast<int>(plugin_id_size)) {
        qzcap_printf("[ERROR] plugin id is too long\n");
        return -1;
    }
    if (!id || std::strncmp(id, id_prefix, id_prefix_len) != 0) {
        qzcap_printf("[ERROR] plugin id prefix mismatch\n");
        return -1;
    }
    const char *rest = id + id_prefix_len;
    const char *arch = std::strstr(rest, g_ctx.arch);
    if (!arch) {
        qzcap_printf("[ERROR] plugin arch mismatch, [%s]:[%s]\n", rest, g_ctx.arch);
        return -1;
    }
    const char *end = arch + std::strlen(g_ctx.arch);
    if (*end == '_' && _strcmp(end + 1, device_vendor()) != 0) {
        qzcap_printf("[ERROR] plugin vendor mismatch, [%s]:[%s]\n", end + 1, device_vendor());
        return -1;
    }
    const std::ptrdiff_t name_len = arch - rest - 1;  // without the "_" before the architecture
    if (name_len < 1 || name_len > name_max) {
        qzcap_printf("[ERROR] plugin name is too long\n");
        return -1;
    }
    if (rest[name_len] != '_') {
        qzcap_printf("[ERROR] plugin id is invalid\n");
        return -1;
    }
    _strlcpy(name, rest, static_cast<std::size_t>(name_len) + 1);
    return 0;
}

bool cc_is_self(const char *plugin_name) {
    char name[plugin_id_size];
    if (_strcmp(plugin_name, self_plugin_name) == 0)
        return true;
    if (cc_parse_plugin_id(plugin_name, name) != 0)
        return false;
    return _strcmp(name, self_plugin_name) == 0 || _strcmp(name, self_app_name) == 0;
}

int cc_check_plugin(const char *id, const char *version, char *name) {
    if (cc_parse_plugin_id(id, name) != 0) {
        cc_set_fail_reason("invalid plugin name");
        return plugin_mismatch;
    }
    char package[control_value_size], installed[control_value_size];
    read_control(name, "Package", package, sizeof package);
    read_control(name, "Version", installed, sizeof installed);
    if (!package[0])
        return plugin_not_installed;
    char expected[plugin_id_size + control_value_size];
    std::snprintf(expected, sizeof expected, "%s%s_%s", id_prefix, package, g_ctx.arch);
    if (_strcmp(id, expected) != 0) {
        qzcap_printf("[ERROR] plugin id mismatch, [%s]:[%s]\n", id, expected);
        return plugin_mismatch;
    }
    if (_strcmp(version, installed) != 0) {
        qzcap_printf("[ERROR] plugin version mismatch, [%s]:[%s]\n", text_or_empty(version), installed);
        return plugin_other_version;
    }
    return plugin_found;
}

int cc_find_plugin(const char *id, const char *version, char *name) {
    if (!cc_is_self(id))
        return cc_check_plugin(id, version, name);
    _strlcpy(name, self_app_name, plugin_id_size);
    return plugin_found;
}

void gen_plugin_id(const char *app_name, char *out) {
    char need_vendor[need_vendor_size];
    app_name = text_or_empty(app_name);
    read_control(app_name, "NeedGWVendor", need_vendor, sizeof need_vendor);
    if (_strcmp(need_vendor, "1") == 0)
        std::snprintf(out, plugin_id_size, "%s%s_%s_%s", id_prefix, app_name, g_ctx.arch, device_vendor());
    else
        std::snprintf(out, plugin_id_size, "%s%s_%s", id_prefix, app_name, g_ctx.arch);
}

}  // namespace arvok
