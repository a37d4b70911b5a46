#pragma once
/// The gateway link: one TCP connection, as a client, to the home gateway, and the JSON messages on it.
///
/// transport.cpp   connection, sending and receiving, timers, reconnection policy
/// frame.cpp       what a message looks like on the wire
/// negotiation.cpp key agreement and registration
/// dispatch.cpp    message types, errors, acknowledgements, device actions
/// reports.cpp     what the device tells on its own
/// bus_bridge.cpp  the platform's bus for the gateway
///
/// Everything runs on the loop thread; other code reaches arvok_send through utask_set.

#include <cstdint>
#include <list>
#include <memory>

#include "common/crypto.h"
#include "common/json.h"
#include "common/stream.h"

extern "C" {
#include <libubus.h>
}

namespace arvok {

/// A beacon element that the gateway had us send.
struct vsie_node {
    std::int32_t index;  ///< the platform's
    char id[256];        ///< the gateway's
};

/// A bus object whose notifications are passed on.
struct bus_subscription {
    ubus_subscriber subscriber;
    char object[128];
    std::int32_t from_cloud;  ///< who asked: 0 the gateway, 1 the cloud
};

/// When the agent first saw a host active. Hosts that change their MACs must not fill the memory of a device
/// that runs for years: beyond first_online_max the records longest not asked for go.
struct first_online {
    char mac[32];
    std::int64_t time;  ///< seconds since the epoch
};
constexpr std::size_t first_online_max = 1024;

/// Device actions that wait until the reply has been sent.
enum arvok_action : std::uint32_t { action_bridge = 1, action_reboot = 2, action_reset = 4 };

struct arvok_client {
    std::int32_t pending_len;      ///< body length of a frame whose header has been read; 0: none
    std::int32_t linked;           ///< registered: reports and events may be sent
    std::int32_t seq;              ///< sequence number of the next message built
    std::int32_t keepalive_seq;    ///< sequence number of the last keepalive; -1: none yet
    std::int32_t reports_pending;  ///< the first reports wait for the registration's acknowledgement
    std::int32_t sync_on;      ///< gateway sync is on; kept by main, the settings and the platform's events
    std::uint32_t event_mask;  ///< arvok_event bits that the gateway subscribed to
    std::uint32_t actions;     ///< arvok_action bits of the message being handled
    std::int32_t errcode;      ///< error of the message being handled
    char errmsg[256];
    std::int32_t short_conn_count;  ///< connections in a row that broke within short_connection_s
    std::int32_t connect_time;      ///< uptime in seconds when the key negotiation began; 0: not yet
    tcp_stream stream;
    dh_key dh;  ///< dh.aes_key switches the link to encrypted bodies
    uloop_timeout reconnect_timer;
    uloop_timeout ack_timer;
    uloop_timeout keepalive_timer;
    uloop_timeout keepalive_ack_timer;
    std::list<vsie_node> vsie_list;
    std::list<first_online> first_online_list;
    std::list<bus_subscription> bus_subscriptions;
};

extern arvok_client *const ec;

/// Bits of event_mask.
enum arvok_event : std::uint32_t {
    event_online = 1,
    event_offline = 2,
    event_vsie = 4,
    event_rolechange = 16
};

/// Error codes of the protocol.
enum arvok_errcode {
    err_not_supported = 10001,
    err_invalid_parameter = 10002,
    err_sync_off = 10003,
    err_platform = 10004,
};

/// An outgoing message.
struct arvok_msg {
    json_object root;
    std::int32_t ack_timeout;  ///< milliseconds until an acknowledgement must have come; 0: none awaited
};
using arvok_msg_ptr = std::unique_ptr<arvok_msg>;

/// How a message came in, and the reply that its handler wants sent.
struct reply_context {
    std::int32_t from_cloud;  ///< came through the cloud client: no envelope checks, nothing sent on the link
    std::int32_t allow_bridge;  ///< a switch to bridge mode may follow
    json_ptr reply;
};

// --- transport ---

/// Sets up the record, keeping sync_on. Once, before ec_run.
void ec_init();
/// Connects for the first time.
void ec_run();
/// Disconnects and releases the lists.
void ec_done();
/// Restarts the link in a second. A utask_fn; `arg` is not used.
void ec_arvoksync_on(void *arg);

/// A message with its envelope: "type", "sequence" (which it uses up) and "mac".
arvok_msg_ptr arvok_msg_new(const char *type, std::int32_t ack_timeout);
/// Sends and releases an arvok_msg (which may be null); without a connection it only releases it. A utask_fn.
void arvok_send(void *msg);
/// Hands a message to arvok_send on the loop's next turn. Returns 0, or -1 with the message released.
int arvok_post(arvok_msg_ptr msg);
/// Sends an "event" message whose data is that one item.
void arvok_send_event(json_ptr item);
/// Whether a message acknowledges the last keepalive.
bool arvok_is_keepalive_ack(const cJSON *root);
/// Closes the connection and forgets the key; no reconnection is armed.
void arvok_disconnect();

// --- dispatch ---

/// Runs one message and carries out the device actions that it asked for. Returns its handler's result: 0
/// when the message was not consumed.
int handle_arvok_msg(const cJSON *root, reply_context &context);
/// Resets or restarts the device when the last message asked for that.
void arvok_run_actions();
/// Records the error of the message being handled; the text is cut at 255 characters.
void arvok_set_error(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));
/// The same, and the object {"errmsg": text} that stands for a failed item.
json_ptr arvok_error_item(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));

// --- negotiation ---

/// Sends the key request that opens every connection.
void send_arvok_keyngreq();
/// Handlers of the gateway's "keyngack" and "dh".
int arvok_keyngack(const cJSON *root, reply_context &context);
int arvok_dh(const cJSON *root, reply_context &context);

// --- reports: nothing is sent while the link is not registered ---

/// `event` (not consumed) describes the change; the DNS servers are added. Returns 0, or -1 when it was not
/// queued.
int send_arvok_wan_report(const cJSON *event);
/// The active LAN hosts.
void send_arvok_lan_report();
/// The stations that roamed, from the platform's roaming notification (not consumed).
void send_arvok_wifi_report(const cJSON *event);
/// How a station that was asked for is heard, from the platform's notification (not consumed).
void send_arvok_rssi_report(const cJSON *event);
/// The device's part in the mesh.
void send_arvok_map_report();

// --- events: besides, nothing is sent that the gateway did not subscribe to; `event` is never consumed ---

/// A host came ("active" 1) or went ("active" 0).
void send_arvok_lan_event(const cJSON *event);
/// The mesh role is now `mode`.
void send_arvok_map_event(const char *mode);
/// A vendor-specific element was received.
void send_arvok_vsie_event(const cJSON *event);

// --- bus bridge ---

/// One bounded call of a bus object; `message` is an object. Its answer, or null with the error recorded.
json_ptr arvok_bus_call(const char *object, const char *method, const cJSON *message);
/// Passes a notification of a subscribed object on to who asked for it; `subscriber` is the `obj` of a
/// bus_subscription's. Returns 0, or -1 when there is nothing to pass on.
int arvok_ubus_subscribe_cb(ubus_context *ctx, ubus_object *subscriber, ubus_request_data *req,
                            const char *method, blob_attr *msg);

/// When the agent first saw that host active, in seconds since the epoch: now, for a MAC not yet known.
std::int64_t arvok_first_online(const char *mac);

}  // namespace arvok
