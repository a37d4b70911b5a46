/*
 * The bus client. A context is one connection to the bus daemon and belongs to one thread. The records of
 * objects, subscribers, event handlers and asynchronous requests belong to the caller, who zeroes them before
 * their first use and keeps them until they are removed, unregistered, completed or aborted.
 *
 * Calls return a UBUS_STATUS_*, 0 for success. Callbacks come from the loop (ubus_add_uloop,
 * ubus_handle_event), except that a synchronous call takes the answers to every request while it waits;
 * requests to this context's own objects that arrive meanwhile are kept and served from the loop later. A
 * lost connection fails the call that waits with UBUS_STATUS_CONNECTION_FAILED, what is pending with
 * UBUS_STATUS_TIMEOUT and all later calls with UBUS_STATUS_INVALID_ARGUMENT; what has not been read is lost.
 */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#include <stdbool.h>
#include <stdint.h>

#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubus_common.h"
#include "ubusmsg.h"

struct ubus_context;
struct ubus_object;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_event_handler;
struct ubus_subscriber;
struct ubus_notify_request;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
/// Returns the status that the caller gets, unless the request was deferred.
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method, struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request *req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);

/* clang-format off */
#define UBUS_OBJECT_TYPE(_name, _methods) \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = (int)ARRAY_SIZE(_methods) }

#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask)                                              \
    { .name = _name, .handler = _handler, .mask = _mask, .tags = 0, .policy = _policy,                 \
      .n_policy = (int)ARRAY_SIZE(_policy) }

#define UBUS_METHOD(_name, _handler, _policy) UBUS_METHOD_MASK(_name, _handler, _policy, 0)

#define UBUS_METHOD_NOARG(_name, _handler)                                                             \
    { .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0 }
/* clang-format on */

struct ubus_method {
    const char *name;  ///< null serves any method
    ubus_handler_t handler;
    unsigned long mask;  ///< when not 0, bit i says whether policy[i] is announced
    unsigned long tags;
    const struct blobmsg_policy *policy;  ///< announced; the handler itself parses its message
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id;  ///< given by the daemon
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_object {
    struct list_head list;  ///< private
    const char *name;       ///< null for an object that only subscribes
    uint32_t id;            ///< given by the daemon, 0 when it is not on the bus
    const char *path;       ///< the name it has on the bus
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb;  ///< has_subscribers has changed
    bool has_subscribers;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_subscriber {
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;  ///< the object `id` has left the bus
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;  ///< private, as is everything but sock.fd and connection_lost
    struct list_head objects;
    struct list_head pending;
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id;
    uint16_t request_seq;
    int stack_depth;
    /// The connection has ended; called from the loop, and from a call that was waiting. From the loop it may
    /// reconnect or free the context. The default ends the loop only while sock is registered, which after a
    /// hang-up it is not: set your own.
    void (*connection_lost)(struct ubus_context *ctx);
    struct ubus_message *incoming;
    uint8_t in_head[sizeof(struct ubus_msghdr) + sizeof(struct blob_attr)];
    size_t in_len;
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature;  ///< a table per method: argument name to type; null without methods
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

/// A request that is being served. Its texts are valid during the handler only.
struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;
    bool deferred;
};

struct ubus_request {
    struct list_head list;  ///< private, up to priv
    int status_code;
    bool status_msg;
    bool cancelled;
    bool notify;
    bool passing_data;
    struct list_head pending;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb;  ///< gets the whole message, UBUS_ATTR_* and all
    ubus_data_handler_t data_cb;      ///< gets the data of an answer
    ubus_complete_handler_t complete_cb;
    struct ubus_context *ctx;
    void *priv;
};

#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_notify_request {
    struct ubus_request req;
    ubus_notify_complete_handler_t status_cb;    ///< one subscriber has answered
    ubus_notify_complete_handler_t complete_cb;  ///< all have
    ubus_notify_data_handler_t data_cb;
    uint32_t pending;  ///< private: bit i is set while id[i] has not answered
    uint32_t id[UBUS_MAX_NOTIFY_PEERS + 1];
};

/// Connects to the daemon at `path` (null: UBUS_UNIX_SOCKET). Null when there is none that answers.
struct ubus_context *ubus_connect(const char *path);

/// The same in a record of the caller's, ended with ubus_shutdown.
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_shutdown(struct ubus_context *ctx);

/// Closes the connection, forgets what is pending without a call and frees the context. Of the callbacks,
/// only connection_lost may do this.
void ubus_free(struct ubus_context *ctx);

/// Connects again and adds every object again; subscriptions and event patterns are gone, and the context is
/// not on the loop. Pending requests fail.
int ubus_reconnect(struct ubus_context *ctx, const char *path);

/// Serves the connection from the loop.
void ubus_add_uloop(struct ubus_context *ctx);

/// Serves what has arrived, without a loop; for use when sock.fd is readable.
static inline void ubus_handle_event(struct ubus_context *ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

const char *ubus_strerror(int error);

/// Calls `cb` for each object that has this path; one ending in '*' matches what begins so, null matches all.
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/// Puts an object on the bus. The daemon names it (id) and refuses a path that is taken. Without a name it
/// can subscribe and be called by its id only.
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

/// Calls a method and waits at most `timeout` milliseconds (0: without limit, negative: not at all) for its
/// end, whatever signals come; UBUS_STATUS_TIMEOUT then, also when the object leaves the bus meanwhile. `msg`
/// may be null. `cb` gets every piece of the answer; those that arrive while it waits for another call come
/// when it has returned, the latest first.
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);

/// Sends a call and zeroes and fills *req. The callbacks of `req` are set after, then it is handed to
/// ubus_complete_request_async, which gets the answers from the loop, or to ubus_complete_request, which
/// waits. Once complete_cb is called, `req` is the caller's again.
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                      struct ubus_request *req);
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);

/// Forgets a request; its callbacks are not called any more, except, from within its data callback, for what
/// has arrived by then. It must not be freed there.
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

/// Sends data to the caller; a handler may send several.
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

/// Lets a handler return without an answer: new_req stands for the request from now on, until
/// ubus_complete_deferred_request ends it with a status.
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req) {
    (void)ctx;
    req->deferred = true;
    *new_req = *req;
    new_req->acl.user = NULL;
    new_req->acl.group = NULL;
    new_req->acl.object = NULL;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

/// Puts a subscriber on the bus, subscribes it to objects, and takes it off again.
int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub);
static inline int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub) {
    return ubus_remove_object(ctx, &sub->obj);
}
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);

/// Notifies the subscribers of an own object. With a negative timeout nothing is awaited; otherwise waits at
/// most that many milliseconds (0: without limit) until the first UBUS_MAX_NOTIFY_PEERS have answered. What
/// they answer does not matter; other than 0 means that an answer is missing.
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout);
/// The same, answered from the loop like an asynchronous call: set the callbacks, then
/// ubus_complete_request_async(ctx, &req->req).
int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                      struct blob_attr *msg, struct ubus_notify_request *req);

/// Sends an event to whoever has registered a matching pattern.
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

/// Calls ev->cb for events of this name; a pattern ending in '*' matches what begins so. May be called
/// repeatedly with one handler.
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

#endif
