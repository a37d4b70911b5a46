#pragma once
/// The cloud client: one TCP connection, as a client, to the operator's management platform; first to its
/// bootstrap server (bss), which names business servers (abi), then to one of those.
///
/// transport.cpp   connection, sending and receiving, the two protocol timers
/// frame.cpp       what a message looks like on the wire, and how it is encrypted in each status
/// dispatch.cpp    the platform's acknowledgements and requests by name, and the standard reply
/// handshake.cpp   enrolment: Boot, GetChallengeCode, Activate, Connect, Heartbeat
/// retry.cpp       when and to which server the client connects again
/// resolver.cpp    server addresses, on a worker thread
/// settings.cpp    servers and identity across restarts
/// status.cpp      the connection's state in words
/// plugins.cpp     the platform's requests about the device's apps, and notifications
/// plugin_id.cpp   what the platform calls an app
/// plugin_params.cpp  messages of the platform to an app
///
/// Everything but the resolver runs on the loop thread; other code reaches cc_send through utask_set.

#include <cstdint>
#include <memory>

#include "cloud_client/resolver.h"
#include "cloud_client/server_record.h"
#include "common/json.h"
#include "common/stream.h"

extern "C" {
#include <libubus.h>
}

namespace arvok {

/// Where the connection stands; decides how bodies are encrypted.
enum cc_status : std::int32_t {
    cc_bootstrap = 1,   ///< Boot is exchanged with the bootstrap server
    cc_challenge = 2,   ///< a business server's challenge code is fetched
    cc_activating = 3,  ///< the device asks for an identity
    cc_connecting = 4,  ///< the device proves its identity
    cc_connected = 5,   ///< heartbeats, and the platform's requests
};

/// Why the device asks the bootstrap server: the digit goes into the Boot message.
enum cc_boot_reason : std::int32_t { boot_answered = 0, boot_start = 1, boot_requested = 2 };

constexpr std::size_t challenge_size = 32;
constexpr std::size_t cc_key_size = 16;
constexpr std::size_t plugin_id_size = 128;  ///< of a plugin identifier and of an app name, terminated

struct cloud_client {
    std::int32_t pending_len;  ///< body length of a frame whose header has been read; 0: none
    std::int32_t boot_reason;  ///< cc_boot_reason
    std::int32_t activated;    ///< the platform has given the device an identity
    std::int32_t status;       ///< cc_status
    std::int32_t result;       ///< of the platform request being handled: 0, or why not
    char fail_reason[256];     ///< in words
    char status_text[256];     ///< the last failure of the connection, for people
    std::int32_t server_kind;  ///< server_kind of the next connection
    std::int32_t abi_index;    ///< business server in use, in `abi`
    std::int32_t retry_count;  ///< failures in a row at the current server
    std::int32_t cycle_count;  ///< rounds through all business servers

    server bss;              ///< bootstrap server
    server abi[abi_max];     ///< business servers, as the bootstrap server named them
    text_ptr devid;          ///< the device's identity at the platform
    text_ptr devtoken;       ///< and its proof
    text_ptr challenge;      ///< the business server's challenge code
    text_ptr client_key;     ///< for the answer to the message in flight
    text_ptr server_key;     ///< for both directions, once connected
    const char *public_key;  ///< the platform's RSA key, PEM

    /// While this is set, `resolver` belongs to the worker thread alone and everything else to the loop
    /// thread alone. The loop thread sets it before it starts the worker, and clears it in cc_resolv_done;
    /// thread creation and the task pipe order the accesses, so nothing is locked.
    std::int32_t resolving;
    server_resolver resolver;

    tcp_stream stream;
    uloop_timeout reconnect_timer;
    uloop_timeout change_timer;  ///< leaves for another bootstrap server
    uloop_timeout heartbeat_timer;
    uloop_timeout ack_timer;
};

extern cloud_client *const cc;

/// An outgoing message.
struct cc_msg {
    json_object root;
    std::int32_t wait_ack;  ///< an acknowledgement must come
};
using cc_msg_ptr = std::unique_ptr<cc_msg>;

// --- transport ---

/// Sets up the record from the user's or the platform's stored server settings. Once, before cc_run.
void cc_init();
/// Resolves a server's name and connects; a resolution under way is left to end. A connection that is up must
/// have been closed.
void cc_run();
/// Disconnects and releases the identity.
void cc_done();

/// {"RPCMethod": method, "MAC": the device's}, awaiting an acknowledgement.
cc_msg_ptr cc_new_msg(const char *method);
/// Sends and releases a cc_msg (which may be null); without a connection it only releases it. A utask_fn.
void cc_send(void *msg);
/// Hands a message to cc_send on the loop's next turn. Returns 0, or -1 with the message released; when it
/// would have awaited an acknowledgement, the connection is then retried.
int cc_post(cc_msg_ptr msg);
/// Writes one message now, awaiting nothing.
void cc_write(const cJSON *root);

/// Closes the connection and forgets its keys and challenge; no reconnection is armed. A lost business
/// connection begins again with the challenge code.
void cc_disconnect();
/// The same, and connects again in `ms` milliseconds.
void cc_reconnect(int ms);
/// What is as good as at once for cc_reconnect.
constexpr int reconnect_now_ms = 10;

/// Sets the failure reason of the request being handled, and logs it. Cut at 255 characters.
void cc_set_fail_reason(const char *format, ...) __attribute__((format(printf, 1, 2)));
/// Sets what people are told about the last failure. Cut at 255 characters.
void cc_set_status_text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// --- dispatch ---

/// Runs one received message: an acknowledgement or a request.
void cc_handle_msg(const cJSON *root);
/// Replies to a request with the result and failure reason at hand; `item`, when there is one, goes under
/// `key`.
void cc_reply(const cJSON *request, const char *key = nullptr, json_ptr item = nullptr);

// --- handshake: handlers of acknowledgements and requests; 1: handled, 0: invalid ---

/// Opens the exchange that the status asks for, on a new connection.
void cc_start_exchange();
int cc_boot_ack(const cJSON *root);
int cc_challenge_ack(const cJSON *root);
int cc_activate_ack(const cJSON *root);
int cc_connect_ack(const cJSON *root);
int cc_heartbeat_ack(const cJSON *root);
int cc_request_connect_bss(const cJSON *root);
/// Sends a heartbeat.
void cc_send_heartbeat();

// --- retry ---

/// After a failure: the same server again after a growing random delay, in the end another server.
void cc_retry();
/// Disconnects and connects again after 150 minutes; 1 names the bootstrap server in the log, anything else a
/// business server.
void cc_wait_long(int kind);

// --- settings ---

/// Reads the stored servers and identity, or the user's bootstrap server, and decides where to begin.
void cc_load_settings();
/// Stores servers and identity through the platform.
void set_server_info();
/// Forgets the identity, and stores that.
void cc_clear_identity();

// --- status ---

/// The server in use as "host:port", and the connection's state in words (UTF-8, cut to the buffer). The
/// status buffer is left as it is in a state that has no words.
void get_cloud_status(char *server_text, std::size_t server_size, char *status, std::size_t status_size);

// --- plugins: handlers of requests; each sends its own reply and returns 1 ---

int cc_install(const cJSON *root);
int cc_uninstall(const cJSON *root);
int cc_stop(const cJSON *root);
int cc_run_plugin(const cJSON *root);
int cc_restore_plugin(const cJSON *root);
int cc_list_plugin(const cJSON *root);
int cc_set_plugin_params(const cJSON *root);
/// What the four of Uninstall (0), Stop (1), Run (2) and RestorePlugin (3) share; another action fails.
int cc_plugin_action(const cJSON *root, unsigned action);

/// The plugin and the app that are the agent itself.
constexpr char self_plugin_name[] = "ArvokAP";
constexpr char self_app_name[] = "arvokclt";

/// Results of cc_check_plugin, which the platform is told as they are.
enum plugin_result : int {
    plugin_found = 0,
    plugin_mismatch = -1,       ///< not an identifier of this device, or not the installed app's
    plugin_other_version = -6,  ///< installed in another version
    plugin_not_installed = -14,
};

/// Extracts the app's name from a plugin identifier of this device into `name` (plugin_id_size characters).
/// Returns 0, or -1 after the log line that says why not.
int cc_parse_plugin_id(const char *id, char *name);
/// Whether a request's plugin name means the agent itself.
bool cc_is_self(const char *plugin_name);
/// Whether the app of that identifier is installed in that version. The app's name goes into `name`
/// (plugin_id_size characters) unless the identifier is not one of this device.
int cc_check_plugin(const char *id, const char *version, char *name);
/// The same for a request that may also mean the agent itself, which is there in every version.
int cc_find_plugin(const char *id, const char *version, char *name);
/// Builds the identifier of an installed app into `out` (plugin_id_size characters).
void gen_plugin_id(const char *app_name, char *out);
/// Completion of an installation; `req->priv` is the record of it, which is released here.
void plugin_install_cb(ubus_request *req, blob_attr *msg);
/// Tells the platform something on the agent's behalf; nothing is awaited.
void send_plugin_notification(const char *text);

}  // namespace arvok
