#include <stdlib.h>
#include <time.h>

#include "ubus_private.h"

static int64_t now_us(void) {
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

/* Rounded up: no wait ends before its time. */
static int64_t ms_until(int64_t deadline_us) {
    int64_t us = deadline_us - now_us();

    return us > 0 ? (us + 999) / 1000 : us / 1000;
}

static bool seq_in_use(const struct ubus_context *ctx, uint16_t seq) {
    struct ubus_request *req;

    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq)
            return true;
    }
    return false;
}

int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req, const struct blob_attr *data,
                       uint8_t type, uint32_t peer) {
    /* A request that waits for long must not get the answers of one that has come round to its number. */
    for (int tries = 0; tries <= UINT16_MAX; tries++)
        if (!seq_in_use(ctx, ++ctx->request_seq))
            break;
    INIT_LIST_HEAD(&req->list);
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ctx->request_seq;
    INIT_LIST_HEAD(&req->pending);
    req->status_msg = false;
    return ubus_send(ctx, type, req->seq, peer, data) == UBUS_STATUS_OK ? UBUS_STATUS_OK
                                                                        : UBUS_STATUS_INVALID_ARGUMENT;
}

/* Answers */

/* The end of a request whose data callback runs is reported when that has returned. */
static void finish(struct ubus_request *req, int status) {
    list_del_init(&req->list);
    req->status_code = status;
    req->status_msg = true;
    if (!req->passing_data && req->complete_cb)
        req->complete_cb(req, status);
}

void ubus_fail_requests(struct ubus_context *ctx, int status) {
    struct list_head failing;

    /* A callback that tries again fails in its own time. */
    INIT_LIST_HEAD(&failing);
    while (!list_empty(&ctx->requests))
        list_move_tail(ctx->requests.next, &failing);
    while (!list_empty(&failing))
        finish(list_first_entry(&failing, struct ubus_request, list), status);
}

static struct ubus_notify_request *notify_of(struct ubus_request *req) {
    return container_of(req, struct ubus_notify_request, req);
}

/* The place of an object among those whose answer a notification awaits, or -1. The notifying object itself
 * is at 0 and stands for the daemon. */
static int notify_index(const struct ubus_notify_request *req, uint32_t peer) {
    for (int i = 0; i <= UBUS_MAX_NOTIFY_PEERS; i++)
        if ((req->pending & (1u << i)) && req->id[i] == peer)
            return i;
    return -1;
}

static struct ubus_request *find_request(struct ubus_context *ctx, const struct ubus_message *msg,
                                         int *index) {
    struct ubus_request *req;

    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq != msg->seq)
            continue;
        *index = req->notify ? notify_index(notify_of(req), msg->peer) : -1;
        if (req->notify ? *index >= 0 : req->peer == msg->peer)
            return req;
    }
    return NULL;
}

static void await_subscribers(struct ubus_notify_request *req, struct blob_attr *subscribers) {
    struct blob_attr *pos;
    size_t rem;
    int i = 1;

    blob_for_each_attr(pos, subscribers, rem) {
        if (i > UBUS_MAX_NOTIFY_PEERS)
            break;
        if (!blob_check_type(blob_data(pos), (unsigned int)blob_len(pos), BLOB_ATTR_INT32))
            continue;
        req->id[i] = blob_get_u32(pos);
        req->pending |= 1u << i;
        i++;
    }
}

static void notify_status(struct ubus_notify_request *req, int index, int status,
                          struct blob_attr *subscribers) {
    req->pending &= ~(1u << index);
    if (index == 0)
        await_subscribers(req, subscribers);
    else if (req->status_cb)
        req->status_cb(req, index, status);
    if (!req->pending)
        finish(&req->req, index == 0 ? status : UBUS_STATUS_OK);
}

static void call_data_callbacks(struct ubus_request *req, struct ubus_message *msg) {
    struct blob_attr *tb[UBUS_ATTR_MAX];

    ubus_parse(msg->data, tb);
    if (req->raw_data_cb)
        req->raw_data_cb(req, UBUS_MSG_DATA, msg->data);
    if (req->data_cb && tb[UBUS_ATTR_DATA])
        req->data_cb(req, UBUS_MSG_DATA, tb[UBUS_ATTR_DATA]);
    free(msg);
}

/* A callback may wait for another request, during which this one may get more data: it is passed on when the
 * callback has returned, the latest first, even when the request was aborted there. */
static void pass_data(struct ubus_request *req, struct ubus_message *msg) {
    list_add(&msg->list, &req->pending);
    if (req->passing_data)
        return;
    req->passing_data = true;
    while (!list_empty(&req->pending)) {
        msg = list_first_entry(&req->pending, struct ubus_message, list);
        list_del(&msg->list);
        call_data_callbacks(req, msg);
    }
    req->passing_data = false;
    if (req->status_msg && req->complete_cb)
        req->complete_cb(req, req->status_code);
}

static void take_status(struct ubus_request *req, const struct ubus_message *msg, int index) {
    struct blob_attr *tb[UBUS_ATTR_MAX];
    int status;

    ubus_parse(msg->data, tb);
    status = tb[UBUS_ATTR_STATUS] ? blob_get_int32(tb[UBUS_ATTR_STATUS]) : UBUS_STATUS_INVALID_ARGUMENT;
    if (req->notify)
        notify_status(notify_of(req), index, status, tb[UBUS_ATTR_SUBSCRIBERS]);
    else
        finish(req, status);
}

void ubus_answer(struct ubus_context *ctx, struct ubus_message *msg) {
    int index = -1;
    struct ubus_request *req = find_request(ctx, msg, &index);

    if (req && msg->type == UBUS_MSG_DATA) {
        pass_data(req, msg);
        return;
    }
    if (req)
        take_status(req, msg, index);
    free(msg);
}

/* Waiting */

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout) {
    int64_t deadline = now_us() + (int64_t)timeout * 1000;
    int failure = UBUS_STATUS_OK;

    if (!req->status_msg && list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
    ctx->stack_depth++;
    while (!req->status_msg && failure == UBUS_STATUS_OK) {
        int64_t rest = timeout ? ms_until(deadline) : -1;
        struct ubus_message *msg;
        int received = timeout && rest <= 0 ? 0 : ubus_receive(ctx, &msg);

        if (received > 0)
            ubus_dispatch(ctx, msg);
        else if (received < 0)
            failure = UBUS_STATUS_CONNECTION_FAILED;
        else if (timeout && rest <= 0)
            failure = UBUS_STATUS_TIMEOUT;
        else
            ubus_wait_readable(ctx, (int)rest);
    }
    if (failure != UBUS_STATUS_OK)
        finish(req, failure);
    if (failure == UBUS_STATUS_CONNECTION_FAILED)
        ubus_tell_loss(ctx);
    ctx->stack_depth--;
    ubus_catch_up(ctx);
    return req->status_code;
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req) {
    if (list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req) {
    (void)ctx;
    if (list_empty(&req->list))
        return;
    req->cancelled = true;
    list_del_init(&req->list);
}

/* Calls */

int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                      struct ubus_request *req) {
    struct blob_buf b;
    int result = UBUS_STATUS_INVALID_ARGUMENT;

    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    ubus_start_message(&b);
    if (blob_put_int32(&b, UBUS_ATTR_OBJID, obj) && blob_put_string(&b, UBUS_ATTR_METHOD, method) &&
        ubus_put_data(&b, msg))
        result = ubus_start_request(ctx, req, b.head, UBUS_MSG_INVOKE, obj);
    blob_buf_free(&b);
    return result;
}

int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout) {
    struct ubus_request req;
    int result = ubus_invoke_async(ctx, obj, method, msg, &req);

    if (result != UBUS_STATUS_OK)
        return result;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_ask_daemon(struct ubus_context *ctx, const struct blob_attr *data, uint8_t type,
                    ubus_data_handler_t raw_cb, void *priv) {
    struct ubus_request req = {.raw_data_cb = raw_cb, .priv = priv};
    int result = ubus_start_request(ctx, &req, data, type, 0);

    return result == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req, UBUS_DAEMON_TIMEOUT) : result;
}
