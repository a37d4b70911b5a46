/*
 * What the parts of the bus client know of each other.
 */
#ifndef UBUS_PRIVATE_H
#define UBUS_PRIVATE_H

#include <libubus.h>

/// For the client's own exchanges with the daemon, in milliseconds.
enum { UBUS_DAEMON_TIMEOUT = 30000 };

/// A message that has arrived, in one piece of memory that the holder frees. The numbers are the host's.
struct ubus_message {
    struct list_head list;
    uint32_t peer;
    uint16_t seq;
    uint8_t type;
    struct blob_attr *data;
};

/* message.c */

/// Sends a message, waiting a limited time for a daemon that does not read. A UBUS_STATUS_*.
int ubus_send(struct ubus_context *ctx, uint8_t type, uint16_t seq, uint32_t peer,
              const struct blob_attr *data);

/// 1 and a message, 0 when none is complete, -1 when the connection is lost.
int ubus_receive(struct ubus_context *ctx, struct ubus_message **msg);

/// Waits at most `timeout` milliseconds (negative: without limit) for something to read. Returns early at a
/// signal.
void ubus_wait_readable(struct ubus_context *ctx, int timeout);

/// Sorts the members of a message; those of the wrong type are left out.
void ubus_parse(struct blob_attr *data, struct blob_attr **tb);

/// Starts an empty message, without memory as well: every later addition fails then.
void ubus_start_message(struct blob_buf *b);

/// Adds UBUS_ATTR_DATA with the content of `msg`, which may be null. False when it does not fit.
bool ubus_put_data(struct blob_buf *b, const struct blob_attr *msg);

/* connection.c */

/// Fails what is pending and calls connection_lost.
void ubus_tell_loss(struct ubus_context *ctx);

/// Passes a message to the request or the object that it is for, and takes it over.
void ubus_dispatch(struct ubus_context *ctx, struct ubus_message *msg);

/// A wait has ended: arranges for what it has put off.
void ubus_catch_up(struct ubus_context *ctx);

/* request.c */

/// Sends a request that answers can be matched to. UBUS_STATUS_INVALID_ARGUMENT when it does not get away.
int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req, const struct blob_attr *data,
                       uint8_t type, uint32_t peer);

/// Takes over the message.
void ubus_answer(struct ubus_context *ctx, struct ubus_message *msg);
void ubus_fail_requests(struct ubus_context *ctx, int status);

/// A request to the daemon and its end. `raw_cb` may be null.
int ubus_ask_daemon(struct ubus_context *ctx, const struct blob_attr *data, uint8_t type,
                    ubus_data_handler_t raw_cb, void *priv);

/* object.c */

void ubus_serve_object(struct ubus_context *ctx, struct ubus_message *msg);

/// Whether an object is a subscriber, and what it is told when an object that it watches leaves the bus.
bool ubus_is_subscriber(const struct ubus_object *obj);
void ubus_target_removed(struct ubus_context *ctx, struct ubus_object *obj, uint32_t target);

#endif
