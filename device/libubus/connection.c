#include <errno.h>
#include <libubox/usock.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "ubus_private.h"

/* How long the daemon may take to accept and to greet, in milliseconds. */
enum { CONNECT_LIMIT = 5000, CONNECT_STEP = 50 };

/* After a hang-up the descriptor is off the loop already, and this does nothing. */
static void end_loop(struct ubus_context *ctx) {
    if (ctx->sock.registered)
        uloop_end();
}

void ubus_tell_loss(struct ubus_context *ctx) {
    ubus_fail_requests(ctx, UBUS_STATUS_TIMEOUT);
    if (ctx->connection_lost)
        ctx->connection_lost(ctx);
}

void ubus_catch_up(struct ubus_context *ctx) {
    if (!list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, 0);
}

void ubus_dispatch(struct ubus_context *ctx, struct ubus_message *msg) {
    switch (msg->type) {
        case UBUS_MSG_STATUS:
        case UBUS_MSG_DATA:
            ubus_answer(ctx, msg);
            break;
        case UBUS_MSG_INVOKE:
        case UBUS_MSG_NOTIFY:
        case UBUS_MSG_UNSUBSCRIBE:
            /* A handler may be waiting for an answer; requests that follow each other are served in their
             * order. */
            list_add_tail(&msg->list, &ctx->pending);
            break;
        default:
            free(msg);
    }
}

static void serve_pending(struct ubus_context *ctx) {
    while (ctx->stack_depth == 0 && !list_empty(&ctx->pending)) {
        struct ubus_message *msg = list_first_entry(&ctx->pending, struct ubus_message, list);

        list_del(&msg->list);
        ubus_serve_object(ctx, msg);
        free(msg);
    }
}

static void on_pending_timer(struct uloop_timeout *timeout) {
    serve_pending(container_of(timeout, struct ubus_context, pending_timer));
}

/* One message in a turn: what it brings about at once comes before the next. A connection that has hung up is
 * not read to its end. */
static void on_readable(struct uloop_fd *fd, unsigned int events) {
    struct ubus_context *ctx = container_of(fd, struct ubus_context, sock);
    struct ubus_message *msg;

    (void)events;
    if (ubus_receive(ctx, &msg) > 0)
        ubus_dispatch(ctx, msg);
    serve_pending(ctx);
    /* The last act: the callback may reconnect or free the context. */
    if (fd->eof)
        ubus_tell_loss(ctx);
}

void ubus_add_uloop(struct ubus_context *ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
}

/* Connecting */

static int64_t now_ms(void) {
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* A daemon with a full backlog refuses for the moment only. */
static int open_socket(const char *path, int64_t deadline) {
    int fd;

    while ((fd = usock(USOCK_UNIX | USOCK_NONBLOCK, path, NULL)) < 0 && errno == EAGAIN &&
           now_ms() < deadline)
        poll(NULL, 0, CONNECT_STEP);
    return fd;
}

static bool take_greeting(struct ubus_context *ctx, int64_t deadline) {
    struct ubus_message *msg = NULL;
    bool greeted;
    int64_t rest;

    while (ubus_receive(ctx, &msg) == 0 && (rest = deadline - now_ms()) > 0)
        ubus_wait_readable(ctx, (int)rest);
    greeted = msg && msg->type == UBUS_MSG_HELLO && msg->peer != 0;
    if (greeted)
        ctx->local_id = msg->peer;
    free(msg);
    return greeted;
}

static void disconnect(struct ubus_context *ctx) {
    struct ubus_message *msg, *next;

    uloop_timeout_cancel(&ctx->pending_timer);
    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    ctx->sock.eof = true;
    list_for_each_entry_safe(msg, next, &ctx->pending, list) free(msg);
    INIT_LIST_HEAD(&ctx->pending);
    free(ctx->incoming);
    ctx->incoming = NULL;
    ctx->in_len = 0;
}

/* The ids belong to a connection that is no more. */
static void forget_ids(struct ubus_context *ctx) {
    struct ubus_object *obj;

    list_for_each_entry(obj, &ctx->objects, list) {
        obj->id = 0;
        obj->has_subscribers = false;
        if (obj->type)
            obj->type->id = 0;
    }
}

static int add_objects_again(struct ubus_context *ctx) {
    struct list_head objects;
    int result = UBUS_STATUS_OK;

    INIT_LIST_HEAD(&objects);
    while (!list_empty(&ctx->objects))
        list_move_tail(ctx->objects.next, &objects);
    while (!list_empty(&objects)) {
        struct ubus_object *obj = list_first_entry(&objects, struct ubus_object, list);
        int added;

        list_del(&obj->list);
        added = ubus_add_object(ctx, obj);
        if (added != UBUS_STATUS_OK && result == UBUS_STATUS_OK)
            result = added;
    }
    return result;
}

int ubus_reconnect(struct ubus_context *ctx, const char *path) {
    int64_t deadline = now_ms() + CONNECT_LIMIT;

    disconnect(ctx);
    forget_ids(ctx);
    ubus_fail_requests(ctx, UBUS_STATUS_CONNECTION_FAILED);

    ctx->sock.fd = open_socket(path ? path : UBUS_UNIX_SOCKET, deadline);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    if (!take_greeting(ctx, deadline)) {
        disconnect(ctx);
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    return add_objects_again(ctx);
}

int ubus_connect_ctx(struct ubus_context *ctx, const char *path) {
    memset(ctx, 0, sizeof(*ctx));
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->objects);
    INIT_LIST_HEAD(&ctx->pending);
    ctx->sock.fd = -1;
    ctx->sock.cb = on_readable;
    ctx->pending_timer.cb = on_pending_timer;
    ctx->connection_lost = end_loop;
    return ubus_reconnect(ctx, path);
}

struct ubus_context *ubus_connect(const char *path) {
    struct ubus_context *ctx = malloc(sizeof(*ctx));

    if (ctx && ubus_connect_ctx(ctx, path) != UBUS_STATUS_OK) {
        free(ctx);
        ctx = NULL;
    }
    return ctx;
}

void ubus_shutdown(struct ubus_context *ctx) {
    disconnect(ctx);
    forget_ids(ctx);
    while (!list_empty(&ctx->requests))
        list_del_init(ctx->requests.next);
    while (!list_empty(&ctx->objects))
        list_del_init(ctx->objects.next);
}

void ubus_free(struct ubus_context *ctx) {
    if (!ctx)
        return;
    ubus_shutdown(ctx);
    free(ctx);
}
