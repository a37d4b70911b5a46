#include "ubus_private.h"

/* Subscribing */

static int on_notification(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                           const char *method, struct blob_attr *msg) {
    struct ubus_subscriber *sub = container_of(obj, struct ubus_subscriber, obj);

    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

static const struct ubus_method subscriber_method = {.name = NULL, .handler = on_notification};

bool ubus_is_subscriber(const struct ubus_object *obj) {
    return obj->methods == &subscriber_method;
}

void ubus_target_removed(struct ubus_context *ctx, struct ubus_object *obj, uint32_t target) {
    struct ubus_subscriber *sub = container_of(obj, struct ubus_subscriber, obj);

    if (sub->remove_cb)
        sub->remove_cb(ctx, sub, target);
}

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub) {
    sub->obj.methods = &subscriber_method;
    sub->obj.n_methods = 1;
    return ubus_add_object(ctx, &sub->obj);
}

static int ask_for_target(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t target,
                          uint8_t type) {
    struct blob_buf b;
    int result = UBUS_STATUS_NO_MEMORY;

    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_OBJID, sub->obj.id) && blob_put_int32(&b, UBUS_ATTR_TARGET, target))
        result = ubus_ask_daemon(ctx, b.head, type, NULL, NULL);
    blob_buf_free(&b);
    return result;
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id) {
    return ask_for_target(ctx, sub, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id) {
    return ask_for_target(ctx, sub, id, UBUS_MSG_UNSUBSCRIBE);
}

/* Notifying */

static void on_notify_complete(struct ubus_request *req, int ret) {
    struct ubus_notify_request *notify = container_of(req, struct ubus_notify_request, req);

    if (notify->complete_cb)
        notify->complete_cb(notify, 0, ret);
}

static void on_notify_data(struct ubus_request *req, int type, struct blob_attr *msg) {
    struct ubus_notify_request *notify = container_of(req, struct ubus_notify_request, req);

    if (notify->data_cb)
        notify->data_cb(notify, type, msg);
}

static int start_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                        const struct blob_attr *msg, struct ubus_notify_request *req, bool reply) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->req.list);
    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_OBJID, obj->id) && blob_put_string(&b, UBUS_ATTR_METHOD, type) &&
        ubus_put_data(&b, msg) && (reply || blob_put_int8(&b, UBUS_ATTR_NO_REPLY, true)))
        result = ubus_start_request(ctx, &req->req, b.head, UBUS_MSG_NOTIFY, obj->id);
    blob_buf_free(&b);
    /* The daemon answers first and names those who have been notified. */
    req->req.notify = true;
    req->req.complete_cb = on_notify_complete;
    req->req.data_cb = on_notify_data;
    req->pending = 1;
    req->id[0] = obj->id;
    return result;
}

int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                      struct blob_attr *msg, struct ubus_notify_request *req) {
    return start_notify(ctx, obj, type, msg, req, true);
}

int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout) {
    struct ubus_notify_request req;
    int result = start_notify(ctx, obj, type, msg, &req, timeout >= 0);

    if (result != UBUS_STATUS_OK || timeout < 0)
        return result;
    return ubus_complete_request(ctx, &req.req, timeout);
}

/* Events */

static int on_event(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                    const char *method, struct blob_attr *msg) {
    struct ubus_event_handler *ev = container_of(obj, struct ubus_event_handler, obj);

    (void)req;
    if (ev->cb)
        ev->cb(ctx, ev, method, msg);
    return UBUS_STATUS_OK;
}

static const struct ubus_method event_method = {.name = NULL, .handler = on_event};

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                const char *pattern) {
    struct blob_buf b;
    int result = UBUS_STATUS_OK;

    if (!ev->obj.id) {
        ev->obj.methods = &event_method;
        ev->obj.n_methods = 1;
        result = ubus_add_object(ctx, &ev->obj);
    }
    if (result != UBUS_STATUS_OK)
        return result;
    ubus_start_message(&b);
    if (blobmsg_add_u32(&b, "object", ev->obj.id) == 0 && blobmsg_add_string(&b, "pattern", pattern) == 0)
        result =
            ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", b.head, NULL, NULL, UBUS_DAEMON_TIMEOUT);
    else
        result = UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_free(&b);
    return result;
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    ubus_start_message(&b);
    if (blobmsg_add_string(&b, "id", id) == 0 &&
        blobmsg_add_field(&b, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : NULL,
                          data ? (unsigned int)blob_len(data) : 0) == 0)
        result = ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", b.head, NULL, NULL, UBUS_DAEMON_TIMEOUT);
    blob_buf_free(&b);
    return result;
}
