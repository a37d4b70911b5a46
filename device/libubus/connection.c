#include <errno.h>
#include <libubox/usock.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "ubus_private.h"

/* How long the daemon may take to accept and to greet, in milliseconds; messages that one turn of the loop
 * serves. */
enum { CONNECT_LIMIT = 5000, CONNECT_STEP = 50, MESSAGES_PER_TURN = 64 };

static void end_loop(struct ubus_context *ctx) {
    if (ctx->on_loop)
        uloop_end();
}

void ubus_lose(struct ubus_context *ctx) {
    if (ctx->lost)
        return;
    ctx->lost = true;
    uloop_fd_delete(&ctx->sock);
    ubus_catch_up(ctx);
}

/* The last act of a turn: the callback may reconnect or free the context. */
static void tell_loss(struct ubus_context *ctx) {
    if (!ctx->lost)
        return;
    ubus_fail_requests(ctx, UBUS_STATUS_CONNECTION_FAILED);
    if (ctx->lost_told)
        return;
    ctx->lost_told = true;
    if (ctx->connection_lost)
        ctx->connection_lost(ctx);
}

void ubus_catch_up(struct ubus_context *ctx) {
    bool to_tell = ctx->lost && (!ctx->lost_told || !list_empty(&ctx->requests));

    if (ctx->on_loop && (to_tell || !list_empty(&ctx->pending)))
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
            return;
        default:
            break;
    }
    free(msg);
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
    struct ubus_context *ctx = container_of(timeout, struct ubus_context, pending_timer);

    serve_pending(ctx);
    tell_loss(ctx);
}

static void on_readable(struct uloop_fd *fd, unsigned int events) {
    struct ubus_context *ctx = container_of(fd, struct ubus_context, sock);
    struct ubus_message *msg;

    (void)events;
    serve_pending(ctx);
    for (int i = 0; i < MESSAGES_PER_TURN && ubus_receive(ctx, &msg) > 0; i++) {
        ubus_dispatch(ctx, msg);
        serve_pending(ctx);
    }
    /* After a hang-up the loop has dropped the descriptor, and there may still be messages in it. */
    if (fd->error && !ctx->lost && ctx->on_loop)
        uloop_fd_add(fd, ULOOP_READ | ULOOP_BLOCKING);
    if (!ctx->on_loop)
        tell_loss(ctx);
}

void ubus_handle_event(struct ubus_context *ctx) {
    on_readable(&ctx->sock, ULOOP_READ);
}

void ubus_add_uloop(struct ubus_context *ctx) {
    ctx->on_loop = true;
    if (ctx->sock.fd >= 0 && !ctx->lost)
        uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    ubus_catch_up(ctx);
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
    ctx->on_loop = false;
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
    /* Whoever is called here and tries again must not find the old connection. */
    ctx->lost = true;
    ctx->lost_told = true;
    ubus_fail_requests(ctx, UBUS_STATUS_CONNECTION_FAILED);

    ctx->sock.fd = open_socket(path ? path : UBUS_UNIX_SOCKET, deadline);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    ctx->lost = false;
    if (!take_greeting(ctx, deadline)) {
        disconnect(ctx);
        ctx->lost = true;
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    ctx->lost_told = false;
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
    ctx->lost = true;
    ctx->lost_told = true;
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
