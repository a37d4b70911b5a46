/// The platform capability library: the device's records, settings and actions as C calls.
///
/// Every call is one bounded exchange with the platform daemons over the bus, or none. Four rules hold
/// throughout, and the comments below name only what departs from them:
///
/// - Calls are made from the loop thread only. While one runs, no callback is called: what comes in meanwhile
///   waits for the loop. What a call is given is lent for the call.
/// - A record that a call returns belongs to the caller and is released with the `qzcap_free_*` of its kind;
///   null means failure. Every release call takes null. Texts inside a record are allocated by the library
///   (qzcap_strdup, qzcap_free) and may be replaced in place; a text that the platform does not know is null.
/// - A call that returns int gives a negative number on failure and 0 or more on success. Lists come through
///   two out-parameters, count first; on failure both are left untouched.
/// - `errtext`, where it exists, may be null. On failure it receives a text that says why, or null; the
///   caller releases it with qzcap_free. On success it is set to null. Records passed in are only read.
///
/// Fields that the platform fills but nobody here reads keep their place under the name `reserved<n>`, so
/// that the n-th member is the platform's field n.
#ifndef ARVOK_QZCAP_H
#define ARVOK_QZCAP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/blobmsg.h>
#include <libubus.h>

/* ---- bus session ---- */

/// Numbers of the platform objects that send notifications.
enum qzcap_object {
    QZCAP_OBJ_LANINFO = 5,
    QZCAP_OBJ_WAN = 6,
    QZCAP_OBJ_WIFI = 7,
    QZCAP_OBJ_MESH = 15,
    QZCAP_OBJ_ROAMING = 16,
    QZCAP_OBJ_VSIE = 30,
};

/// Connects to the bus ($UBUS_SOCKET, else the bus library's default), prepares the loop and adds the bus to
/// it. What happens when the bus goes away is the context's `connection_lost`, which the caller may set.
/// Returns 0, or non-zero with nothing left behind when the bus is missing. `flags` is 0.
int qzcap_ubus_start(int flags);
/// Ends the session and releases everything it holds; harmless without a session. The loop and the bus may
/// have gone before. Installations under way end now: their callers are told from here.
void qzcap_ubus_done(void);
/// The session's bus context; null without a session. Stays the library's.
struct ubus_context *qzcap_get_ubus_context(void);
/// The bus id of a platform object by its number (enum qzcap_object); 0 when unknown or absent from the bus.
uint32_t qzcap_get_objid_by_id(int number);
/// The bus id of a bus object by its name; 0 when absent from the bus.
uint32_t qzcap_get_objid_by_name(const char *name);
/// Registers the subscriber (its `cb` must be set, `remove_cb` may be), which is lent until the subscription
/// ends, and subscribes it to the object `id`. On failure it is not registered. Once its subscription has
/// ended the same one may be subscribed again.
int qzcap_ubus_subscribe(struct ubus_subscriber *subscriber, uint32_t id);
/// Ends the subscription to `id` and unregisters the subscriber, also when `id` is not subscribed or is gone.
int qzcap_ubus_unsubscribe(struct ubus_subscriber *subscriber, uint32_t id);
/// A ubus_data_handler_t that stores the answer as compact JSON text in *(char **)req->priv, which starts as
/// null; the caller releases it with qzcap_free.
void qzcap_data_cb(struct ubus_request *req, int type, struct blob_attr *msg);
/// The same, storing a copy of the answer itself in *(struct blob_attr **)req->priv, for
/// blobmsg_format_json_with_cb(answer, true, ...).
void qzcap_data_blob_cb(struct ubus_request *req, int type, struct blob_attr *msg);
/// Reads {"result": n, "failreason": "..."}. Returns 0 when `result` is 0; otherwise, also for a null or
/// malformed reply, non-zero with *reason set to a text that the caller releases with qzcap_free.
int qzcap_parse_result_and_failreason(const char *reply, char **reason);

/* ---- memory and log ---- */

/// Zeroed memory from the allocator that all records and texts use; null when exhausted or when the product
/// overflows.
void *qzcap_calloc(size_t count, size_t size);
/// A copy of `text`; null for null or when memory is exhausted.
char *qzcap_strdup(const char *text);
/// Releases memory of qzcap_calloc, qzcap_strdup or malloc; null is allowed.
void qzcap_free(void *memory);
/// Writes to the process's log (standard error), unbuffered, each call in one write. A line starts with its
/// local time; a text without a line feed leaves its line open for the next call. From any thread, with or
/// without a session.
void qzcap_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- apps ---- */

/// What an app lets the app manager call. Each slot has the form of a bus method handler; null: not offered.
struct qzcap_appmgtcb {
    ubus_handler_t start;
    ubus_handler_t stop;
    ubus_handler_t postmsg;  ///< delivery of a message from another app
    ubus_handler_t restore;
};

/// One installed app.
struct qzcap_app {
    char *name;
    char *version;
    char *state;  ///< "running" or "stopped"
};

/// Called once when an installation has ended, with {"result", "failreason", "name", "version"} or a null
/// message when the platform never answered or the session ends; `req->priv` is the `priv` given to
/// qzcap_install_app.
typedef void (*qzcap_install_handler_t)(struct ubus_request *req, struct blob_attr *msg);

/// Publishes this process as an app (bus object "qzapp." and the program's name). `owner` is null or kept for
/// the caller; `callbacks` must outlive the registration. Null on failure.
void *qzcap_register_appmgtcb(void *owner, const struct qzcap_appmgtcb *callbacks);
/// Withdraws the app; null is allowed.
void qzcap_unregister_appmgtcb(void *handle);
/// Starts an installation; the result comes later through `done`, from the loop. On failure it never comes.
int qzcap_install_app(struct ubus_context *ctx, const char *url, qzcap_install_handler_t done, void *priv);
/// Removes an app. This call and the next three give non-zero on failure.
int qzcap_uninstall_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Starts an app.
int qzcap_run_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Stops an app.
int qzcap_stop_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Returns an app to the state in which it was installed.
int qzcap_restore_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Lists the installed apps.
int qzcap_get_applist(struct ubus_context *ctx, unsigned int *count, struct qzcap_app ***list);
void qzcap_free_applist(unsigned int count, struct qzcap_app **list);
/// Hands the JSON text `message` to an app and returns its answer as JSON text (release with qzcap_free), or
/// null.
char *qzcap_app_postmsg(struct ubus_context *ctx, const char *name, const char *message, char **errtext);

#ifdef __cplusplus
}
#endif

#include "qzcap_device.h"
#include "qzcap_wifi.h"

#endif
