// The functions of the platform library that would use the bus. Those that only look after memory are the
// library's own.

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/bus_message.h"
#include "base/json.h"
#include "platform.h"

using namespace arvok::fuzz;
namespace capi = arvok::capi;

namespace {

template <typename T>
T *fetch(const capi::Record &kind, const char *name, const char *band = nullptr, unsigned n = 0) {
    return static_cast<T *>(fetch_record(kind, name, band, n));
}

template <typename T>
int list_of(const capi::Record &kind, const char *name, const char *band, unsigned *count, T ***list) {
    void **records = nullptr;
    const int result = fetch_list(kind, name, band, count, &records);
    if (result == 0)
        *list = reinterpret_cast<T **>(records);
    return result;
}

// A number that the platform chooses, where a failure is below 1.
int chosen(int number, int failed) {
    return failed < 0 ? -1 : number;
}

const char *band_name(int band) {
    return band == QZCAP_RADIO_2G || band == QZCAP_AP_2G ? "2.4G" : "5G";
}

// Reads texts that a call hands in, so that a sanitizer sees them.
int texts_outcome(const char *const *texts, unsigned count, char **errtext) {
    for (unsigned i = 0; i < count; i++)
        qzcap_free(qzcap_strdup(texts[i]));
    return outcome(errtext);
}

int text_outcome(const char *text, char **errtext) {
    return texts_outcome(&text, 1, errtext);
}

// Most calls are alike: they give a record or a list of them, or take one or a text.
#define GIVES(call, kind, name)                       \
    qzcap_##kind *call() {                            \
        return fetch<qzcap_##kind>(capi::kind, name); \
    }
#define LISTS(call, kind)                                        \
    int call(unsigned *count, qzcap_##kind ***list) {            \
        return list_of(capi::kind, #kind, nullptr, count, list); \
    }
#define TAKES(call, kind)                                  \
    int call(const qzcap_##kind *record, char **errtext) { \
        return outcome(capi::kind, record, errtext);       \
    }
#define TAKES_TEXT(call)                         \
    int call(const char *text, char **errtext) { \
        return text_outcome(text, errtext);      \
    }
#define TAKES_APP(call)                                          \
    int call(ubus_context *, const char *name, char **errtext) { \
        return text_outcome(name, errtext);                      \
    }

ubus_context bus{};

// What was logged is not looked at, but it is put together.
char log_line[65536];

}  // namespace

// --- session, memory and log ---

int qzcap_ubus_start(int) {
    uloop_init();
    return 0;
}
void qzcap_ubus_done() {}
ubus_context *qzcap_get_ubus_context() {
    return &bus;
}
uint32_t qzcap_get_objid_by_id(int number) {
    return outcome(nullptr) == 0 ? static_cast<uint32_t>(number) : 0;
}
uint32_t qzcap_get_objid_by_name(const char *name) {
    return text_outcome(name, nullptr) == 0 ? 77 : 0;
}
int qzcap_ubus_subscribe(ubus_subscriber *subscriber, uint32_t id) {
    if (id == 0)
        return -1;
    platform.subscribers.push_back(subscriber);
    return 0;
}
int qzcap_ubus_unsubscribe(ubus_subscriber *subscriber, uint32_t) {
    std::erase(platform.subscribers, subscriber);
    return outcome(nullptr);
}
void qzcap_printf(const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(log_line, sizeof log_line, format, args);
    va_end(args);
}

// --- the bus itself, for the agent's code ---

extern "C" int __wrap_ubus_invoke(ubus_context *, uint32_t, const char *, blob_attr *message,
                                  ubus_data_handler_t handle_data, void *priv, int) {
    if (outcome(nullptr) != 0)
        return UBUS_STATUS_TIMEOUT;
    ubus_request request{};
    request.priv = priv;
    handle_data(&request, 0, message);  // every object answers with what it was told
    return UBUS_STATUS_OK;
}

extern "C" int __wrap_ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *reply) {
    if (!arvok::json::parse(arvok::json_of(reply).value_or("")))
        std::abort();  // no reader of the answer could read it
    platform.replies++;
    return 0;
}

// --- apps ---

void *qzcap_register_appmgtcb(void *, const qzcap_appmgtcb *callbacks) {
    platform.app = callbacks;
    return &platform;
}
void qzcap_unregister_appmgtcb(void *) {
    platform.app = nullptr;
}
int qzcap_install_app(ubus_context *, const char *url, qzcap_install_handler_t done, void *priv) {
    if (text_outcome(url, nullptr) != 0)
        return -1;
    platform.installations.push_back({done, priv});
    return 0;
}
TAKES_APP(qzcap_uninstall_app)
TAKES_APP(qzcap_run_app)
TAKES_APP(qzcap_stop_app)
TAKES_APP(qzcap_restore_app)
int qzcap_get_applist(ubus_context *, unsigned *count, qzcap_app ***list) {
    return list_of(capi::app, "app", nullptr, count, list);
}
char *qzcap_app_postmsg(ubus_context *, const char *, const char *message, char **errtext) {
    return outcome(errtext) == 0 ? qzcap_strdup(message) : nullptr;
}

// --- device and WAN ---

GIVES(qzcap_get_devinfo, devinfo, "devinfo")
GIVES(qzcap_diagnostics_get, diagnostics, "diagnostics")
GIVES(qzcap_diagnostics_netstat, netstatinfo, "netstatinfo")
GIVES(qzcap_get_terminalnum, terminalnum, "terminalnum")
char *qzcap_get_led_switch() {
    return outcome(nullptr) == 0 ? qzcap_strdup("on") : nullptr;
}
TAKES_TEXT(qzcap_set_led_switch)
TAKES(qzcap_set_iptv, iptv)
TAKES_TEXT(qzcap_set_workmode)
int qzcap_reset() {
    return outcome(nullptr);
}
int qzcap_reboot() {
    return outcome(nullptr);
}
int qzcap_upgrade(const char *url, uint32_t, const char *chksum, char **errtext) {
    const char *texts[] = {url, chksum};
    return texts_outcome(texts, 2, errtext);
}
GIVES(qzcap_get_waninfo, waninfo, "waninfo")

// --- LAN hosts ---

LISTS(qzcap_list_laninfo, laninfo)
int qzcap_set_laninfo(uint32_t, const qzcap_laninfo *record, char **errtext) {
    return outcome(capi::laninfo, record, errtext);
}
int qzcap_set_blacklist(const char *enable, const char *const *macs, unsigned count, char **errtext) {
    qzcap_free(qzcap_strdup(enable));
    return texts_outcome(macs, count, errtext);
}

// --- radios ---

qzcap_wifiinfo *qzcap_get_wifiinfo(int band) {
    return fetch<qzcap_wifiinfo>(capi::wifiinfo, "wifiinfo", band_name(band));
}
int qzcap_set_wifiinfo_async(int, const qzcap_wifiinfo *record, int) {
    return outcome(capi::wifiinfo, record, nullptr);
}
GIVES(qzcap_get_wifi_switch, wifi_switch, "wifi_switch")
LISTS(qzcap_wifi_timer_list, wifi_timer)
TAKES(qzcap_wifi_timer_add, wifi_timer)
int qzcap_wifi_timer_set(uint32_t, const qzcap_wifi_timer *record, char **errtext) {
    return outcome(capi::wifi_timer, record, errtext);
}
int qzcap_wifi_timer_delete(uint32_t, char **errtext) {
    return outcome(errtext);
}
LISTS(qzcap_get_neighbourinfo, neighbourinfo)
int qzcap_get_channel_score(int band, unsigned *count, qzcap_channel_score ***list) {
    return list_of(capi::channel_score, "channel_score", band_name(band), count, list);
}
int qzcap_wifi_channelscan(char **errtext) {
    return outcome(errtext);
}

// --- access points ---

int qzcap_wifi_ap_list(int band, unsigned *count, qzcap_wifi_ap ***list) {
    return list_of(capi::wifi_ap, "wifi_ap", band_name(band), count, list);
}
qzcap_wifi_ap *qzcap_wifi_ap_get(int band, uint32_t index) {
    return fetch<qzcap_wifi_ap>(capi::wifi_ap, "wifi_ap", band_name(band), index - 1);
}
int qzcap_wifi_ap_set(int, uint32_t, const qzcap_wifi_ap *record, char **errtext) {
    return outcome(capi::wifi_ap, record, errtext);
}
int qzcap_wifi_ap_set_async(int, uint32_t, const qzcap_wifi_ap *record, int, char **errtext) {
    return outcome(capi::wifi_ap, record, errtext);
}
int qzcap_wifi_ap_add(int, const qzcap_wifi_ap *record, char **errtext) {
    return chosen(4, outcome(capi::wifi_ap, record, errtext));
}
int qzcap_wifi_ap_delete(int, uint32_t, char **errtext) {
    return outcome(errtext);
}
qzcap_wifi_apstat *qzcap_wifi_ap_stats(int band, uint32_t) {
    return fetch<qzcap_wifi_apstat>(capi::wifi_apstat, "wifi_apstat", band_name(band));
}

// --- stations and mesh ---

int qzcap_wifi_deassociation(const char *const *macs, unsigned count, char **errtext) {
    return texts_outcome(macs, count, errtext);
}
TAKES(qzcap_start_rssi_query, rssi_query)
TAKES(qzcap_bss_transition, bsstransition)
GIVES(qzcap_get_roaming, roaming, "roaming")
TAKES(qzcap_set_roaming, roaming)
GIVES(qzcap_get_mesh, mesh, "mesh")
GIVES(qzcap_mesh_backhaulbss, backhaulbss, "backhaulbss")
char *qzcap_mesh_topo(int) {
    return outcome(nullptr) == 0 ? qzcap_strdup(R"({"agents": [{"almac": "02:5A:10:00:00:42"}]})") : nullptr;
}
TAKES_TEXT(qzcap_set_mesh_role)
GIVES(qzcap_get_mesh_roaming, roaming, "mesh_roaming")
TAKES(qzcap_set_mesh_roaming, roaming)

// --- vendor-specific elements ---

int qzcap_add_vsie_beacontx(const qzcap_vsie_beacontx *record, char **errtext) {
    return chosen(3, outcome(capi::vsie_beacontx, record, errtext));
}
int qzcap_vsie_beacontx_action(int, const char *action, char **errtext) {
    return text_outcome(action, errtext);
}
TAKES_TEXT(qzcap_delete_vsie_beacontx_by_name)
TAKES(qzcap_add_vsie_proberesp, vsie_proberesp)

// --- cloud servers ---

qzcap_serverinfo *qzcap_get_serverinfo() {
    auto *record = fetch<qzcap_serverinfo>(capi::serverinfo, "serverinfo");
    const auto &stored = platform.servers;
    if (!record || stored.size() < 3)
        return record;
    for (char **text : {&record->bss, &record->devtoken, &record->devid})
        qzcap_free(*text);
    record->bss = qzcap_strdup(stored[0].c_str());
    record->devtoken = qzcap_strdup(stored[1].c_str());
    record->devid = qzcap_strdup(stored[2].c_str());
    qzcap_free(record->abi_list);
    record->abi_list = static_cast<char **>(qzcap_calloc(stored.size(), sizeof(char *)));
    record->abi_count = 0;
    for (std::size_t i = 3; i < stored.size(); i++) {
        if (i == 3)
            record->abi = qzcap_strdup(stored[i].c_str());
        else
            record->abi_list[record->abi_count++] = qzcap_strdup(stored[i].c_str());
    }
    return record;
}
TAKES(qzcap_set_serverinfo, serverinfo)
