#include "arvok/platform_events.h"

#include <cstring>

#include "arvok_client/arvok_client.h"
#include "cloud_client/cloud_client.h"
#include "common/text.h"
#include "context.h"
#include "utask/utask.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

constexpr int rule_delay_ms = 200;  // a burst of new hosts makes one re-application of the rules

void remove_new_device(const char *mac) {
    for (auto device = g_ctx.new_devices.begin(); device != g_ctx.new_devices.end(); ++device) {
        if (_strcasecmp(device->mac, mac) == 0) {
            g_ctx.new_devices.erase(device);
            return;
        }
    }
}

void add_new_device(const char *mac) {
    if (g_ctx.new_devices.size() >= new_devices_max)
        g_ctx.new_devices.pop_back();
    g_ctx.new_devices.emplace_front();
    _strlcpy(g_ctx.new_devices.front().mac, mac, sizeof new_device::mac);
}

void on_dev_event(const char *method, const char *, const cJSON *event) {
    const char *mac = json_text(event, "mac");
    const cJSON *active = json_member(event, "active");
    if (_strcmp(method, "devicestatus") == 0) {
        if (mac && cJSON_IsNumber(active) && active->valuedouble == 0)
            remove_new_device(mac);
        send_arvok_lan_event(event);
        send_arvok_lan_report();
    } else if (_strcmp(method, "newdevice") == 0) {
        if (mac)
            add_new_device(mac);
        uloop_timeout_set(&g_ctx.extcc.parent_timer, rule_delay_ms);
    }
}

// The cloud is behind the WAN. The states are looked for in the text, wherever in the notification they
// stand.
void follow_wan(const char *text) {
    const bool connected = cc->stream.fd > 0;
    if (connected && std::strstr(text, R"("status":"down")"))
        cc_disconnect();
    else if (!connected && std::strstr(text, R"("status":"up")"))
        cc_reconnect(reconnect_now_ms);
}

void on_wan_event(const char *, const char *text, const cJSON *event) {
    follow_wan(text);
    if (event)
        send_arvok_wan_report(event);
}

void on_wifi_event(const char *, const char *, const cJSON *event) {
    const char *sync = json_text(event, "arvoksync");
    if (_strcmp(sync, "on") == 0) {
        ec->sync_on = 1;
        utask_set(nullptr, ec_arvoksync_on);
    } else if (_strcmp(sync, "off") == 0) {
        ec->sync_on = 0;
    }
}

void on_roaming_event(const char *method, const char *, const cJSON *event) {
    if (event && _strcmp(method, "aprssi") == 0)
        send_arvok_rssi_report(event);
    else if (event)
        send_arvok_wifi_report(event);
}

void on_map_event(const char *, const char *, const cJSON *event) {
    send_arvok_map_report();
    if (const char *mode = json_text(event, "mode"))
        send_arvok_map_event(mode);
}

void on_vsie_event(const char *, const char *, const cJSON *event) {
    if (event)
        send_arvok_vsie_event(event);
}

// What all callbacks share: render, log, parse, act. `text` is the rendered notification, `event` what it
// parses to, or null.
using event_action = void (*)(const char *method, const char *text, const cJSON *event);

int take_event(const char *callback, event_action act, const char *method, blob_attr *msg) {
    if (!msg)
        return -1;
    const qz_text rendered(blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1));
    const char *text = text_or_empty(rendered.get());
    qzcap_printf("[DEBUG] %s: method %s, json: %s\n", callback, text_or_empty(method), text);
    const json_ptr event = json_parse(text);
    act(method, text, event.get());
    return 0;
}

using bus = ubus_context;
using object = ubus_object;
using request = ubus_request_data;

int dev_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("dev_event_cb", on_dev_event, method, msg);
}
int wan_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("wan_event_cb", on_wan_event, method, msg);
}
int wifi_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("wifi_event_cb", on_wifi_event, method, msg);
}
int roaming_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("roaming_event_cb", on_roaming_event, method, msg);
}
int map_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("map_event_cb", on_map_event, method, msg);
}
int vsie_event_cb(bus *, object *, request *, const char *method, blob_attr *msg) {
    return take_event("vsie_event_cb", on_vsie_event, method, msg);
}

struct subscription {
    int object;
    int object_at_end;  // the mesh subscriber is handed back with the roaming object's number
    ubus_handler_t callback;
};

constexpr subscription subscriptions[] = {
    {QZCAP_OBJ_LANINFO, QZCAP_OBJ_LANINFO, dev_event_cb},
    {QZCAP_OBJ_WAN, QZCAP_OBJ_WAN, wan_event_cb},
    {QZCAP_OBJ_WIFI, QZCAP_OBJ_WIFI, wifi_event_cb},
    {QZCAP_OBJ_ROAMING, QZCAP_OBJ_ROAMING, roaming_event_cb},
    {QZCAP_OBJ_MESH, QZCAP_OBJ_ROAMING, map_event_cb},
    {QZCAP_OBJ_VSIE, QZCAP_OBJ_VSIE, vsie_event_cb},
};
static_assert(std::size(subscriptions) == event_subscribers);

}  // namespace

void subscribe_platform_events() {
    for (std::size_t i = 0; i < event_subscribers; i++)
        g_ctx.subscribers[i].cb = subscriptions[i].callback;
    for (std::size_t i = 0; i < event_subscribers; i++)
        qzcap_ubus_subscribe(&g_ctx.subscribers[i], qzcap_get_objid_by_id(subscriptions[i].object));
}

void unsubscribe_platform_events() {
    for (std::size_t i = 0; i < event_subscribers; i++)
        qzcap_ubus_unsubscribe(&g_ctx.subscribers[i], qzcap_get_objid_by_id(subscriptions[i].object_at_end));
}

}  // namespace arvok
