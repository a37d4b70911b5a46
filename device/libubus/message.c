#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "ubus_private.h"

/* A daemon that takes nothing for this long, in milliseconds, is as good as gone. */
enum { WRITE_LIMIT = 5000, WRITE_STEP = 500 };

static bool wait_writable(int fd) {
    struct pollfd poll_fd = {.fd = fd, .events = POLLOUT};

    for (int waited = 0; waited < WRITE_LIMIT; waited += WRITE_STEP) {
        int ready = poll(&poll_fd, 1, WRITE_STEP);

        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
    return false;
}

int ubus_send(struct ubus_context *ctx, uint8_t type, uint16_t seq, uint32_t peer,
              const struct blob_attr *data) {
    struct ubus_msghdr header = {
        .version = 0, .type = type, .seq = cpu_to_be16(seq), .peer = cpu_to_be32(peer)};
    struct iovec parts[2] = {
        {.iov_base = &header, .iov_len = sizeof(header)},
        {.iov_base = (void *)(uintptr_t)data, .iov_len = data ? blob_raw_len(data) : 0},
    };
    struct msghdr message = {.msg_iov = parts, .msg_iovlen = ARRAY_SIZE(parts)};

    if (ctx->sock.fd < 0 || ctx->sock.eof)
        return UBUS_STATUS_CONNECTION_FAILED;
    if (!data)
        return UBUS_STATUS_NO_MEMORY;
    if (blob_raw_len(data) > UBUS_MAX_MSGLEN)
        return UBUS_STATUS_INVALID_ARGUMENT;

    while (parts[0].iov_len + parts[1].iov_len > 0) {
        ssize_t sent = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
        size_t rest = sent > 0 ? (size_t)sent : 0;

        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && !((errno == EAGAIN || errno == EWOULDBLOCK) && wait_writable(ctx->sock.fd))) {
            ctx->sock.eof = true;
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        for (size_t i = 0; i < ARRAY_SIZE(parts); i++) {
            size_t here = rest < parts[i].iov_len ? rest : parts[i].iov_len;

            parts[i].iov_base = (char *)parts[i].iov_base + here;
            parts[i].iov_len -= here;
            rest -= here;
        }
    }
    return UBUS_STATUS_OK;
}

/* Reads on until `size` bytes are there: 1, 0 when they are not there yet, -1 at the end of the connection.
 */
static int fill(struct ubus_context *ctx, uint8_t *to, size_t have, size_t size) {
    while (have < size) {
        ssize_t n = recv(ctx->sock.fd, to + have, size - have, MSG_DONTWAIT);

        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 0;
        if (n <= 0)
            return -1;
        have += (size_t)n;
        ctx->in_len += (size_t)n;
    }
    return 1;
}

/* Memory for the message whose header has arrived; null when the header does not hold. */
static struct ubus_message *begin_message(const uint8_t *head) {
    struct ubus_msghdr header;
    struct blob_attr attr;
    struct ubus_message *msg;

    memcpy(&header, head, sizeof(header));
    memcpy(&attr, head + sizeof(header), sizeof(attr));
    if (header.version != 0 || blob_raw_len(&attr) < sizeof(attr) || blob_raw_len(&attr) > UBUS_MAX_MSGLEN)
        return NULL;
    msg = malloc(sizeof(*msg) + blob_pad_len(&attr));
    if (!msg)
        return NULL;
    msg->type = header.type;
    msg->seq = be16_to_cpu(header.seq);
    msg->peer = be32_to_cpu(header.peer);
    msg->data = (struct blob_attr *)(void *)(msg + 1);
    *msg->data = attr;
    return msg;
}

int ubus_receive(struct ubus_context *ctx, struct ubus_message **msg) {
    int result = 1;

    *msg = NULL;
    if (ctx->sock.fd < 0)
        return -1;
    if (!ctx->incoming) {
        result = fill(ctx, ctx->in_head, ctx->in_len, sizeof(ctx->in_head));
        if (result > 0) {
            ctx->incoming = begin_message(ctx->in_head);
            result = ctx->incoming ? 1 : -1;
        }
    }
    if (result > 0)
        result = fill(ctx, (uint8_t *)ctx->incoming->data, ctx->in_len - sizeof(struct ubus_msghdr),
                      blob_raw_len(ctx->incoming->data));
    if (result < 0)
        ctx->sock.eof = true;
    if (result <= 0)
        return result;
    *msg = ctx->incoming;
    ctx->incoming = NULL;
    ctx->in_len = 0;
    return 1;
}

void ubus_wait_readable(struct ubus_context *ctx, int timeout) {
    struct pollfd poll_fd = {.fd = ctx->sock.fd, .events = POLLIN};

    poll(&poll_fd, 1, timeout);
}

void ubus_parse(struct blob_attr *data, struct blob_attr **tb) {
    static const struct blob_attr_info info[UBUS_ATTR_MAX] = {
        [UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_SIGNATURE] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_DATA] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_TARGET] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_ACTIVE] = {.type = BLOB_ATTR_INT8},
        [UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
        [UBUS_ATTR_SUBSCRIBERS] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
    };

    blob_parse(data, tb, info, UBUS_ATTR_MAX);
}

void ubus_start_message(struct blob_buf *b) {
    memset(b, 0, sizeof(*b));
    blob_buf_init(b, 0);
}

bool ubus_put_data(struct blob_buf *b, const struct blob_attr *msg) {
    return blob_put(b, UBUS_ATTR_DATA, msg ? blob_data(msg) : NULL, msg ? (unsigned int)blob_len(msg) : 0) !=
           NULL;
}
