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

// A record, whatever its kind.
struct found {
    void *record;
    template <typename T>
    operator T *() const {
        return static_cast<T *>(record);
    }
};

found fetch(const capi::Record &kind, const char *band = nullptr, unsigned n = 0) {
    return {fetch_record(kind, kind.name, band, n)};
}

template <typename T>
int fetch_all(const capi::Record &kind, unsigned *count, T ***list, const char *band = nullptr) {
    void **records = nullptr;
    const int result = fetch_list(kind, kind.name, band, count, &records);
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

ubus_context bus{};

// What the object that is being called was told; null when it never answers.
blob_attr *told = nullptr;

// A call that consists of its result.
#define CALL(type, name, arguments, result) \
    type name arguments {                   \
        return result;                      \
    }

// Those on the connection of the agent's own.
std::vector<ubus_subscriber *> own_subscribers;

// What was logged is not looked at, but it is put together.
char log_line[65536];

}  // namespace

// --- session, memory and log ---

int qzcap_ubus_start(int) {
    uloop_init();
    return 0;
}
void qzcap_ubus_done() {}
CALL(ubus_context *, qzcap_get_ubus_context, (), &bus)
CALL(uint32_t, qzcap_get_objid_by_id, (int number), outcome(nullptr) == 0 ? static_cast<uint32_t>(number) : 0)
CALL(uint32_t, qzcap_get_objid_by_name, (const char *name), text_outcome(name, nullptr) == 0 ? 77 : 0)
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

// What the real library's ubus_invoke, which is in its header, calls.
extern "C" int __wrap_ubus_invoke_fd(ubus_context *, uint32_t, const char *, blob_attr *message,
                                     ubus_data_handler_t handle_data, void *priv, int, int) {
    if (outcome(nullptr) != 0)
        return UBUS_STATUS_TIMEOUT;
    ubus_request request{};
    request.priv = priv;
    handle_data(&request, 0, message);  // every object answers with what it was told
    return UBUS_STATUS_OK;
}

extern "C" int __wrap_ubus_invoke(ubus_context *ctx, uint32_t object, const char *method, blob_attr *message,
                                  ubus_data_handler_t handle_data, void *priv, int timeout) {
    return __wrap_ubus_invoke_fd(ctx, object, method, message, handle_data, priv, timeout, -1);
}

extern "C" int __wrap_ubus_invoke_async_fd(ubus_context *, uint32_t, const char *, blob_attr *message,
                                           ubus_request *request, int) {
    *request = {};
    told = outcome(nullptr) == 0 ? message : nullptr;
    return UBUS_STATUS_OK;
}

extern "C" int __wrap_ubus_invoke_async(ubus_context *ctx, uint32_t object, const char *method,
                                        blob_attr *message, ubus_request *request) {
    return __wrap_ubus_invoke_async_fd(ctx, object, method, message, request, -1);
}

extern "C" void __wrap_ubus_complete_request_async(ubus_context *, ubus_request *request) {
    if (!told)
        return;
    request->data_cb(request, 0, told);
    request->complete_cb(request, UBUS_STATUS_OK);
}

extern "C" void __wrap_ubus_abort_request(ubus_context *, ubus_request *) {}

extern "C" int __wrap_ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *reply) {
    if (!arvok::json::parse(arvok::json_of(reply).value_or("")))
        std::abort();  // no reader of the answer could read it
    platform.replies++;
    return 0;
}

// Objects come and go with the fates of the calls that look for them.
extern "C" int __wrap_ubus_register_event_handler(ubus_context *, ubus_event_handler *, const char *) {
    return UBUS_STATUS_OK;
}

// The connection of the agent's own.
extern "C" ubus_context *__wrap_ubus_connect(const char *) {
    static ubus_context own;
    own = {};
    own.sock.fd = -1;
    own.sock.cb = [](uloop_fd *, unsigned int) {};
    return &own;
}

extern "C" void __wrap_ubus_free(ubus_context *) {
    for (ubus_subscriber *subscriber : own_subscribers)
        std::erase(platform.subscribers, subscriber);
    own_subscribers.clear();
}

extern "C" int __wrap_ubus_register_subscriber(ubus_context *, ubus_subscriber *subscriber) {
    own_subscribers.push_back(subscriber);
    platform.subscribers.push_back(subscriber);
    return UBUS_STATUS_OK;
}

extern "C" int __wrap_ubus_subscribe(ubus_context *, ubus_subscriber *, uint32_t) {
    return UBUS_STATUS_OK;
}

extern "C" int __wrap_ubus_remove_object(ubus_context *, ubus_object *object) {
    const auto is_its = [&](const ubus_subscriber *each) { return &each->obj == object; };
    if (std::erase_if(own_subscribers, is_its) == 0)
        return UBUS_STATUS_OK;
    std::erase_if(platform.subscribers, is_its);
    return outcome(nullptr);
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
CALL(int, qzcap_uninstall_app, (ubus_context *, const char *name, char **errtext),
     text_outcome(name, errtext))
CALL(int, qzcap_run_app, (ubus_context *, const char *name, char **errtext), text_outcome(name, errtext))
CALL(int, qzcap_stop_app, (ubus_context *, const char *name, char **errtext), text_outcome(name, errtext))
CALL(int, qzcap_restore_app, (ubus_context *, const char *name, char **errtext), text_outcome(name, errtext))
CALL(int, qzcap_get_applist, (ubus_context *, unsigned *count, qzcap_app ***list),
     fetch_all(capi::app, count, list))
CALL(char *, qzcap_app_postmsg, (ubus_context *, const char *, const char *message, char **errtext),
     outcome(errtext) == 0 ? qzcap_strdup(message) : nullptr)

// --- device and WAN ---

CALL(qzcap_devinfo *, qzcap_get_devinfo, (), fetch(capi::devinfo))
CALL(qzcap_diagnostics *, qzcap_diagnostics_get, (), fetch(capi::diagnostics))
CALL(qzcap_netstatinfo *, qzcap_diagnostics_netstat, (), fetch(capi::netstatinfo))
CALL(qzcap_terminalnum *, qzcap_get_terminalnum, (), fetch(capi::terminalnum))
CALL(char *, qzcap_get_led_switch, (), outcome(nullptr) == 0 ? qzcap_strdup("on") : nullptr)
CALL(int, qzcap_set_led_switch, (const char *text, char **errtext), text_outcome(text, errtext))
CALL(int, qzcap_set_iptv, (const qzcap_iptv *record, char **errtext), outcome(capi::iptv, record, errtext))
CALL(int, qzcap_set_workmode, (const char *text, char **errtext), text_outcome(text, errtext))
CALL(int, qzcap_reset, (), outcome(nullptr))
CALL(int, qzcap_reboot, (), outcome(nullptr))
int qzcap_upgrade(const char *url, uint32_t, const char *chksum, char **errtext) {
    const char *texts[] = {url, chksum};
    return texts_outcome(texts, 2, errtext);
}
CALL(qzcap_waninfo *, qzcap_get_waninfo, (), fetch(capi::waninfo))

// --- LAN hosts ---

CALL(int, qzcap_list_laninfo, (unsigned *count, qzcap_laninfo ***list), fetch_all(capi::laninfo, count, list))
CALL(int, qzcap_set_laninfo, (uint32_t, const qzcap_laninfo *record, char **errtext),
     outcome(capi::laninfo, record, errtext))
int qzcap_set_blacklist(const char *enable, const char *const *macs, unsigned count, char **errtext) {
    qzcap_free(qzcap_strdup(enable));
    return texts_outcome(macs, count, errtext);
}

// --- radios ---

CALL(qzcap_wifiinfo *, qzcap_get_wifiinfo, (int band), fetch(capi::wifiinfo, band_name(band)))
CALL(int, qzcap_set_wifiinfo_async, (int, const qzcap_wifiinfo *record, int),
     outcome(capi::wifiinfo, record, nullptr))
CALL(qzcap_wifi_switch *, qzcap_get_wifi_switch, (), fetch(capi::wifi_switch))
CALL(int, qzcap_wifi_timer_list, (unsigned *count, qzcap_wifi_timer ***list),
     fetch_all(capi::wifi_timer, count, list))
CALL(int, qzcap_wifi_timer_add, (const qzcap_wifi_timer *record, char **errtext),
     outcome(capi::wifi_timer, record, errtext))
CALL(int, qzcap_wifi_timer_set, (uint32_t, const qzcap_wifi_timer *record, char **errtext),
     outcome(capi::wifi_timer, record, errtext))
CALL(int, qzcap_wifi_timer_delete, (uint32_t, char **errtext), outcome(errtext))
CALL(int, qzcap_get_neighbourinfo, (unsigned *count, qzcap_neighbourinfo ***list),
     fetch_all(capi::neighbourinfo, count, list))
CALL(int, qzcap_get_channel_score, (int band, unsigned *count, qzcap_channel_score ***list),
     fetch_all(capi::channel_score, count, list, band_name(band)))
CALL(int, qzcap_wifi_channelscan, (char **errtext), outcome(errtext))

// --- access points ---

CALL(int, qzcap_wifi_ap_list, (int band, unsigned *count, qzcap_wifi_ap ***list),
     fetch_all(capi::wifi_ap, count, list, band_name(band)))
CALL(qzcap_wifi_ap *, qzcap_wifi_ap_get, (int band, uint32_t index),
     fetch(capi::wifi_ap, band_name(band), index - 1))
CALL(int, qzcap_wifi_ap_set, (int, uint32_t, const qzcap_wifi_ap *record, char **errtext),
     outcome(capi::wifi_ap, record, errtext))
CALL(int, qzcap_wifi_ap_set_async, (int, uint32_t, const qzcap_wifi_ap *record, int, char **errtext),
     outcome(capi::wifi_ap, record, errtext))
CALL(int, qzcap_wifi_ap_add, (int, const qzcap_wifi_ap *record, char **errtext),
     chosen(4, outcome(capi::wifi_ap, record, errtext)))
CALL(int, qzcap_wifi_ap_delete, (int, uint32_t, char **errtext), outcome(errtext))
CALL(qzcap_wifi_apstat *, qzcap_wifi_ap_stats, (int band, uint32_t),
     fetch(capi::wifi_apstat, band_name(band)))

// --- stations and mesh ---

CALL(int, qzcap_wifi_deassociation, (const char *const *macs, unsigned count, char **errtext),
     texts_outcome(macs, count, errtext))
CALL(int, qzcap_start_rssi_query, (const qzcap_rssi_query *record, char **errtext),
     outcome(capi::rssi_query, record, errtext))
CALL(int, qzcap_bss_transition, (const qzcap_bsstransition *record, char **errtext),
     outcome(capi::bsstransition, record, errtext))
CALL(qzcap_roaming *, qzcap_get_roaming, (), fetch(capi::roaming))
CALL(int, qzcap_set_roaming, (const qzcap_roaming *record, char **errtext),
     outcome(capi::roaming, record, errtext))
CALL(qzcap_mesh *, qzcap_get_mesh, (), fetch(capi::mesh))
CALL(qzcap_backhaulbss *, qzcap_mesh_backhaulbss, (), fetch(capi::backhaulbss))
CALL(char *, qzcap_mesh_topo, (int),
     outcome(nullptr) == 0 ? qzcap_strdup(R"({"agents": [{"almac": "02:5A:10:00:00:42"}]})") : nullptr)
CALL(int, qzcap_set_mesh_role, (const char *text, char **errtext), text_outcome(text, errtext))
CALL(qzcap_roaming *, qzcap_get_mesh_roaming, (),
     found{fetch_record(capi::roaming, "mesh_roaming", nullptr, 0)})
CALL(int, qzcap_set_mesh_roaming, (const qzcap_roaming *record, char **errtext),
     outcome(capi::roaming, record, errtext))

// --- vendor-specific elements ---

CALL(int, qzcap_add_vsie_beacontx, (const qzcap_vsie_beacontx *record, char **errtext),
     chosen(3, outcome(capi::vsie_beacontx, record, errtext)))
CALL(int, qzcap_vsie_beacontx_action, (int, const char *action, char **errtext),
     text_outcome(action, errtext))
CALL(int, qzcap_delete_vsie_beacontx_by_name, (const char *text, char **errtext), text_outcome(text, errtext))
CALL(int, qzcap_add_vsie_proberesp, (const qzcap_vsie_proberesp *record, char **errtext),
     outcome(capi::vsie_proberesp, record, errtext))

// --- cloud servers ---

qzcap_serverinfo *qzcap_get_serverinfo() {
    qzcap_serverinfo *const record = fetch(capi::serverinfo);
    const auto &stored = platform.servers;
    if (!record || stored.size() < 3)
        return record;
    qzcap_free(record->abi_list);
    record->abi_list = static_cast<char **>(qzcap_calloc(stored.size(), sizeof(char *)));
    record->abi_count = 0;
    char **const members[] = {&record->bss, &record->devtoken, &record->devid, &record->abi};
    for (std::size_t i = 0; i < stored.size(); i++) {
        char *&text = i < std::size(members) ? *members[i] : record->abi_list[record->abi_count++];
        qzcap_free(text);
        text = qzcap_strdup(stored[i].c_str());
    }
    return record;
}
CALL(int, qzcap_set_serverinfo, (const qzcap_serverinfo *record, char **errtext),
     outcome(capi::serverinfo, record, errtext))
