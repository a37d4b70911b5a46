#include "ubus_private.h"

/* Announcing */

static bool put_method(struct blob_buf *b, const struct ubus_method *method) {
    void *cookie = blobmsg_open_table(b, method->name);
    bool put = cookie != NULL;

    for (int i = 0; i < method->n_policy; i++) {
        const struct blobmsg_policy *argument = &method->policy[i];

        if (method->mask && !(method->mask & (1ul << i)))
            continue;
        if (argument->name)
            put = put && blobmsg_add_u32(b, argument->name, argument->type) == 0;
    }
    blobmsg_close_table(b, cookie);
    return put;
}

static bool put_type(struct blob_buf *b, const struct ubus_object_type *type) {
    void *cookie;
    bool put;

    if (type->id)
        return blob_put_int32(b, UBUS_ATTR_OBJTYPE, type->id) != NULL;
    cookie = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
    put = cookie != NULL;
    for (int i = 0; i < type->n_methods; i++)
        put = put && (!type->methods[i].name || put_method(b, &type->methods[i]));
    blob_nest_end(b, cookie);
    return put;
}

static void take_ids(struct ubus_request *req, int type, struct blob_attr *msg) {
    struct ubus_object *obj = req->priv;
    struct blob_attr *tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse(msg, tb);
    if (tb[UBUS_ATTR_OBJID])
        obj->id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (tb[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
}

static bool is_added(const struct ubus_context *ctx, const struct ubus_object *obj) {
    struct ubus_object *other;

    list_for_each_entry(other, &ctx->objects, list) {
        if (other == obj)
            return true;
    }
    return false;
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    /* The daemon takes a path with a type only. */
    if (is_added(ctx, obj) || (obj->name && !obj->type))
        return UBUS_STATUS_INVALID_ARGUMENT;
    obj->id = 0;
    obj->has_subscribers = false;
    ubus_start_message(&b);
    if (!obj->name || (blob_put_string(&b, UBUS_ATTR_OBJPATH, obj->name) && put_type(&b, obj->type)))
        result = ubus_ask_daemon(ctx, b.head, UBUS_MSG_ADD_OBJECT, take_ids, obj);
    blob_buf_free(&b);
    if (result == UBUS_STATUS_OK && obj->id == 0)
        result = UBUS_STATUS_NO_DATA;
    if (result != UBUS_STATUS_OK)
        return result;
    obj->path = obj->name;
    list_add_tail(&obj->list, &ctx->objects);
    return UBUS_STATUS_OK;
}

/* The daemon names the type that it has dropped together with its last object. */
static void forget_type(struct ubus_request *req, int type, struct blob_attr *msg) {
    struct ubus_object *obj = req->priv;
    struct blob_attr *tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse(msg, tb);
    if (tb[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = 0;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    if (!is_added(ctx, obj))
        return UBUS_STATUS_NOT_FOUND;
    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_OBJID, obj->id))
        result = ubus_ask_daemon(ctx, b.head, UBUS_MSG_REMOVE_OBJECT, forget_type, obj);
    blob_buf_free(&b);
    /* Without an answer nobody knows whether the type is still there. */
    if (result != UBUS_STATUS_OK && obj->type)
        obj->type->id = 0;
    /* Whatever the daemon says, the caller may free it now. */
    list_del(&obj->list);
    obj->id = 0;
    obj->has_subscribers = false;
    return result;
}

/* Serving */

static struct ubus_object *find_object(struct ubus_context *ctx, const struct blob_attr *id) {
    struct ubus_object *obj;

    if (!id)
        return NULL;
    list_for_each_entry(obj, &ctx->objects, list) {
        if (obj->id == blob_get_u32(id))
            return obj;
    }
    return NULL;
}

static const struct ubus_method *find_method(const struct ubus_object *obj, const char *name) {
    for (int i = 0; i < obj->n_methods; i++)
        if (!obj->methods[i].name || strcmp(obj->methods[i].name, name) == 0)
            return &obj->methods[i];
    return NULL;
}

static int call_method(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                       struct blob_attr **tb) {
    struct blob_attr empty = {.id_len = cpu_to_be32(sizeof(empty))};
    const struct ubus_method *method;
    const char *name;

    if (!obj)
        return UBUS_STATUS_NOT_FOUND;
    if (!tb[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    name = blob_get_string(tb[UBUS_ATTR_METHOD]);
    method = find_method(obj, name);
    if (!method)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    return method->handler(ctx, obj, req, name, tb[UBUS_ATTR_DATA] ? tb[UBUS_ATTR_DATA] : &empty);
}

static void serve_call(struct ubus_context *ctx, struct ubus_message *msg, struct ubus_object *obj,
                       struct blob_attr **tb) {
    bool no_reply = tb[UBUS_ATTR_NO_REPLY] && blob_get_u8(tb[UBUS_ATTR_NO_REPLY]);
    struct ubus_request_data req = {
        .object = tb[UBUS_ATTR_OBJID] ? blob_get_u32(tb[UBUS_ATTR_OBJID]) : 0,
        .peer = msg->peer,
        .seq = msg->seq,
        .acl =
            {
                .user = tb[UBUS_ATTR_USER] ? blob_get_string(tb[UBUS_ATTR_USER]) : NULL,
                .group = tb[UBUS_ATTR_GROUP] ? blob_get_string(tb[UBUS_ATTR_GROUP]) : NULL,
                .object = obj ? obj->name : NULL,
            },
    };
    int status = call_method(ctx, obj, &req, tb);

    if (!no_reply && !req.deferred)
        ubus_complete_deferred_request(ctx, &req, status);
}

void ubus_serve_object(struct ubus_context *ctx, struct ubus_message *msg) {
    struct blob_attr *tb[UBUS_ATTR_MAX];
    struct ubus_object *obj;

    ubus_parse(msg->data, tb);
    obj = find_object(ctx, tb[UBUS_ATTR_OBJID]);
    if (msg->type == UBUS_MSG_INVOKE) {
        serve_call(ctx, msg, obj, tb);
    } else if (msg->type == UBUS_MSG_UNSUBSCRIBE) {
        if (obj && tb[UBUS_ATTR_TARGET] && ubus_is_subscriber(obj))
            ubus_target_removed(ctx, obj, blob_get_u32(tb[UBUS_ATTR_TARGET]));
    } else if (obj && tb[UBUS_ATTR_ACTIVE]) {
        obj->has_subscribers = blob_get_u8(tb[UBUS_ATTR_ACTIVE]) != 0;
        if (obj->subscribe_cb)
            obj->subscribe_cb(ctx, obj);
    }
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_OBJID, req->object) && ubus_put_data(&b, msg))
        result = ubus_send(ctx, UBUS_MSG_DATA, req->seq, req->peer, b.head);
    blob_buf_free(&b);
    return result;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret) {
    struct blob_buf b;

    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_STATUS, (uint32_t)ret) &&
        blob_put_int32(&b, UBUS_ATTR_OBJID, req->object))
        ubus_send(ctx, UBUS_MSG_STATUS, req->seq, req->peer, b.head);
    blob_buf_free(&b);
}

/* Looking up */

struct lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

static void pass_object(struct ubus_request *req, int type, struct blob_attr *msg) {
    const struct lookup *lookup = req->priv;
    struct blob_attr *tb[UBUS_ATTR_MAX];
    struct ubus_object_data found;

    (void)type;
    ubus_parse(msg, tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_OBJPATH] || !tb[UBUS_ATTR_OBJTYPE])
        return;
    found.id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    found.type_id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
    found.path = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
    found.signature = tb[UBUS_ATTR_SIGNATURE];
    if (lookup->cb)
        lookup->cb(req->ctx, &found, lookup->priv);
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    struct lookup lookup = {.cb = cb, .priv = priv};
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    ubus_start_message(&b);
    if (!path || blob_put_string(&b, UBUS_ATTR_OBJPATH, path))
        result = ubus_ask_daemon(ctx, b.head, UBUS_MSG_LOOKUP, pass_object, &lookup);
    blob_buf_free(&b);
    return result;
}

static void take_id(struct ubus_request *req, int type, struct blob_attr *msg) {
    uint32_t *id = req->priv;
    struct blob_attr *tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse(msg, tb);
    if (tb[UBUS_ATTR_OBJID])
        *id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    ubus_start_message(&b);
    if (path && blob_put_string(&b, UBUS_ATTR_OBJPATH, path))
        result = ubus_ask_daemon(ctx, b.head, UBUS_MSG_LOOKUP, take_id, id);
    blob_buf_free(&b);
    return result;
}
