#include "arvok/device_info.h"

#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <cstdio>
#include <cstring>
#include <utility>

#include "common/identity.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr int version_output_size = 32;

// What pclose answers says nothing here; the output does.
using pipe_ptr = handle<std::FILE, &::pclose>;

int fetch_aps(int band, std::uint32_t &count, wifi_aps_ptr &aps) {
    unsigned int fetched = 0;
    qzcap_wifi_ap **list = nullptr;
    if (qzcap_wifi_ap_list(band, &fetched, &list) < 0)
        return -1;
    aps = wifi_aps_ptr(list, {fetched});
    count = fetched;
    return 0;
}

void drop_aps_2g() {
    g_ctx.aps_2g.reset();
    g_ctx.aps_2g_cnt = 0;
}

// The vendor as the version text shows it: up to the first space, or UNKNOWN where there is none.
void vendor_word(char (&word)[64]) {
    std::memset(word, 0, sizeof word);
    _strlcpy(word, "UNKNOWN", sizeof word);
    if (g_ctx.devinfo && _strlen(g_ctx.devinfo->vendor) > 0)
        _strlcpy(word, g_ctx.devinfo->vendor, sizeof word);
    for (char &c : word)
        if (c == ' ')
            c = '\0';
}

}  // namespace

int update_dev_info() {
    if (g_ctx.devinfo_valid)
        return 0;
    devinfo_ptr devinfo(qzcap_get_devinfo());
    if (!devinfo)
        return -1;
    g_ctx.devinfo = std::move(devinfo);
    _convert_mac(g_ctx.devinfo->mac);
    g_ctx.devinfo_valid = 1;
    g_ctx.is_router = _strcmp(g_ctx.devinfo->mode, "router") == 0;
    g_ctx.dual_band = _strcmp(g_ctx.devinfo->support_5g, "yes") == 0;
    return 0;
}

int update_wan_info() {
    if (g_ctx.waninfo_valid)
        return 0;
    waninfo_ptr waninfo(qzcap_get_waninfo());
    if (!waninfo)
        return -1;
    g_ctx.waninfo = std::move(waninfo);
    g_ctx.waninfo_valid = 1;
    return 0;
}

int update_wifi_info() {
    if (g_ctx.wifiinfo_valid)
        return 0;
    wifiinfo_ptr radio(qzcap_get_wifiinfo(QZCAP_RADIO_2G));
    if (!radio) {
        qzcap_printf("[ERROR] %s qzcap_get_wifiinfo 2.4G failed\n", "update_wifi_info");
        return -1;
    }
    g_ctx.wifiinfo_2g = std::move(radio);
    if (g_ctx.dual_band) {
        radio.reset(qzcap_get_wifiinfo(QZCAP_RADIO_5G));
        if (!radio) {
            g_ctx.wifiinfo_2g.reset();
            qzcap_printf("[ERROR] %s qzcap_get_wifiinfo 5G failed\n", "update_wifi_info");
            return -1;
        }
        g_ctx.wifiinfo_5g = std::move(radio);
    }
    g_ctx.wifiinfo_valid = 1;
    return 0;
}

int update_ap_info() {
    if (fetch_aps(QZCAP_AP_2G, g_ctx.aps_2g_cnt, g_ctx.aps_2g) < 0) {
        qzcap_printf("[ERROR] %s qzcap_wifi_ap_list 2.4G failed\n", "update_ap_info");
        return -1;
    }
    if (!g_ctx.dual_band)
        return 0;
    if (fetch_aps(QZCAP_AP_5G, g_ctx.aps_5g_cnt, g_ctx.aps_5g) < 0) {
        drop_aps_2g();
        qzcap_printf("[ERROR] %s qzcap_wifi_ap_list 5G failed\n", "update_ap_info");
        return -1;
    }
    return 0;
}

int update_diag_info() {
    if (g_ctx.diag_valid)
        return 0;
    diagnostics_ptr diag(qzcap_diagnostics_get());
    if (!diag)
        return -1;
    g_ctx.diag = std::move(diag);
    g_ctx.diag_valid = 1;
    return 0;
}

void give_memory_back() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

bool list_hosts(laninfos_ptr &hosts) {
    unsigned int count = 0;
    qzcap_laninfo **list = nullptr;
    if (qzcap_list_laninfo(&count, &list) < 0)
        return false;
    hosts = laninfos_ptr(list, {count});
    return true;
}

std::span<qzcap_laninfo *const> hosts_of(const laninfos_ptr &hosts) {
    return {hosts.get(), hosts ? hosts.get_deleter().count : 0};
}

qzcap_laninfo *find_host(const laninfos_ptr &hosts, const char *mac) {
    for (qzcap_laninfo *host : hosts_of(hosts))
        if (_strcasecmp(host->mac, mac) == 0)
            return host;
    return nullptr;
}

void replace_text(char *&text, const char *value) {
    qzcap_free(text);
    text = qzcap_strdup(value);
}

const char *own_mac() {
    return g_ctx.devinfo ? g_ctx.devinfo->mac : nullptr;
}

void invalidate_device_info() {
    g_ctx.devinfo_valid = 0;
    g_ctx.waninfo_valid = 0;
    g_ctx.wifiinfo_valid = 0;
    g_ctx.diag_valid = 0;
}

void release_device_info() {
    g_ctx.devinfo.reset();
    g_ctx.waninfo.reset();
    g_ctx.wifiinfo_2g.reset();
    drop_aps_2g();
    if (g_ctx.dual_band) {
        g_ctx.wifiinfo_5g.reset();
        g_ctx.aps_5g.reset();
        g_ctx.aps_5g_cnt = 0;
    }
    g_ctx.diag.reset();
}

int read_cmd_output(const char *command, char *buf) {
    const pipe_ptr output(popen(command, "re"));
    if (!output)
        return -1;
    return static_cast<int>(std::fread(buf, 1, version_output_size, output.get()));
}

const char *get_tul_version() {
    static char tul_version[256];
    char vendor[64];
    char output[version_output_size + 1] = "";
    std::memset(tul_version, 0, sizeof tul_version);
    vendor_word(vendor);

    const bool installed = access("/qzcap/bin/appd", F_OK) == 0;
    read_cmd_output(installed ? "/qzcap/bin/appd version" : "appd version", output);
    if (char *remark = std::strstr(output, " ("))
        *remark = '\0';
    const char *colon = std::strstr(output, ": ");

    std::snprintf(tul_version, sizeof tul_version, "TUL1.0_QZ_%s_%s_%s", vendor, g_ctx.arch,
                  colon ? colon + 2 : "(NULL)");
    for (char &c : tul_version)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return tul_version;
}

int get_bandwidth_index(const char *text) {
    int code = 0;
    for (const char *known : bandwidth_texts) {
        if (_strcmp(text, known) == 0)
            return code;
        code++;
    }
    return unknown_bandwidth;
}

}  // namespace arvok
