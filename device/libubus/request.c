#include <errno.h>
#include <time.h>

#include "ubus_private.h"

/* How long a wait may miss a signal that came just before it, in milliseconds. */
enum { WAIT_STEP = 200 };

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
    req->status_msg = false;
    req->while_ending = uloop_cancelling();
    return ubus_send(ctx, type, req->seq, peer, data);
}

/* Answers */

static void leave_data_calls(struct ubus_context *ctx, const struct ubus_request *req) {
    for (struct ubus_data_call *call = ctx->data_calls; call; call = call->outer)
        if (call->req == req)
            call->req = NULL;
}

static void finish(struct ubus_request *req, int status) {
    leave_data_calls(req->ctx, req);
    list_del_init(&req->list);
    req->status_code = status;
    req->status_msg = true;
    if (req->complete_cb)
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

static bool data_call_runs(const struct ubus_context *ctx, const struct ubus_request *req) {
    for (const struct ubus_data_call *call = ctx->data_calls; call; call = call->outer)
        if (call->req == req)
            return true;
    return false;
}

/* A callback may wait for another request, during which this one gets more data and its end, and it may abort
 * this one. The end is reported once the outermost of its callbacks has returned. */
static void pass_data(struct ubus_context *ctx, struct ubus_request *req, struct blob_attr *whole,
                      struct blob_attr *data) {
    struct ubus_data_call call = {.req = req, .outer = ctx->data_calls};

    ctx->data_calls = &call;
    if (req->raw_data_cb)
        req->raw_data_cb(req, UBUS_MSG_DATA, whole);
    if (call.req && req->data_cb && data)
        req->data_cb(req, UBUS_MSG_DATA, data);
    ctx->data_calls = call.outer;
    if (call.req && req->status_msg && !data_call_runs(ctx, req))
        finish(req, req->status_code);
}

void ubus_answer(struct ubus_context *ctx, struct ubus_message *msg) {
    struct blob_attr *tb[UBUS_ATTR_MAX];
    int index = -1;
    struct ubus_request *req = find_request(ctx, msg, &index);
    int status;

    if (!req)
        return;
    ubus_parse(msg->data, tb);
    if (msg->type == UBUS_MSG_DATA) {
        pass_data(ctx, req, msg->data, tb[UBUS_ATTR_DATA]);
        return;
    }
    status = tb[UBUS_ATTR_STATUS] ? blob_get_int32(tb[UBUS_ATTR_STATUS]) : UBUS_STATUS_INVALID_ARGUMENT;
    if (req->notify) {
        notify_status(notify_of(req), index, status, tb[UBUS_ATTR_SUBSCRIBERS]);
    } else if (data_call_runs(ctx, req)) {
        req->status_code = status;
        req->status_msg = true;
    } else {
        finish(req, status);
    }
}

/* Waiting */

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout) {
    int64_t deadline = now_us() + (int64_t)timeout * 1000;
    int result = UBUS_STATUS_OK;

    if (!req->status_msg && list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
    ctx->stack_depth++;
    while (!req->status_msg && result == UBUS_STATUS_OK) {
        struct ubus_message *msg;
        int received = ubus_receive(ctx, &msg);
        int64_t rest = timeout > 0 ? ms_until(deadline) : WAIT_STEP;

        if (received > 0)
            ubus_dispatch(ctx, msg);
        /* What has arrived in time is still taken, but not a stream of other messages without end, nor one
         * that keeps the loop from ending. */
        if (received > 0 && rest > -WAIT_STEP && (timeout > 0 || req->while_ending || !uloop_cancelling()))
            continue;
        if (received < 0)
            result = UBUS_STATUS_CONNECTION_FAILED;
        else if (!req->while_ending && uloop_cancelling())
            result = UBUS_STATUS_NO_DATA;
        else if (rest > 0)
            ubus_wait_readable(ctx, rest < WAIT_STEP ? (int)rest : WAIT_STEP);
        else
            result = UBUS_STATUS_TIMEOUT;
    }
    ctx->stack_depth--;
    if (req->status_msg)
        result = req->status_code;
    else
        ubus_abort_request(ctx, req);
    ubus_catch_up(ctx);
    return result;
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req) {
    if (list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
    ubus_catch_up(ctx);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req) {
    leave_data_calls(ctx, req);
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
