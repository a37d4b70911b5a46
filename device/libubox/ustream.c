#include <libubox/ustream.h>
#include <stdlib.h>
#include <string.h>

#include "ustream_private.h"

/* Unread bytes lie in [data, tail), room in [tail, end). */
struct ustream_buf {
    struct ustream_buf *next;
    char *data;
    char *tail;
    char *end;
    char head[];
};

static struct ustream_buf *add_buf(struct ustream_buf_list *list, int size) {
    /* One more than its size, for the zero behind string data. */
    struct ustream_buf *buf = malloc(sizeof(*buf) + (size_t)size + 1);

    if (!buf)
        return NULL;
    buf->next = NULL;
    buf->data = buf->tail = buf->head;
    buf->end = buf->head + size;
    if (list->tail)
        list->tail->next = buf;
    else
        list->head = buf;
    list->tail = buf;
    list->buffers++;
    return buf;
}

static bool may_add_buf(const struct ustream_buf_list *list) {
    return list->max_buffers < 0 || list->buffers < list->max_buffers;
}

static void drop_head(struct ustream_buf_list *list) {
    struct ustream_buf *buf = list->head;

    list->head = buf->next;
    if (!list->head)
        list->tail = NULL;
    list->buffers--;
    free(buf);
}

static void free_bufs(struct ustream_buf_list *list) {
    while (list->head)
        drop_head(list);
    list->data_bytes = 0;
}

/* Takes `len` bytes, no more than there are, off the front. The last buffer is kept for what comes. */
static void take(struct ustream_buf_list *list, int len) {
    list->data_bytes -= len;
    while (len > 0) {
        struct ustream_buf *buf = list->head;
        int here = (int)(buf->tail - buf->data);

        if (here > len)
            here = len;
        buf->data += here;
        len -= here;
        if (buf->data < buf->tail)
            return;
        if (buf->next)
            drop_head(list);
        else
            buf->data = buf->tail = buf->head;
    }
}

static void on_state_change(struct uloop_timeout *timeout) {
    struct ustream *s = container_of(timeout, struct ustream, state_change);

    if (s->notify_state)
        s->notify_state(s);
}

void ustream_state_change(struct ustream *s) {
    uloop_timeout_set(&s->state_change, 0);
}

void ustream_init(struct ustream *s) {
    if (s->r.buffer_len <= 0)
        s->r.buffer_len = 4096;
    if (s->r.max_buffers == 0)
        s->r.max_buffers = 1;
    if (s->w.buffer_len <= 0)
        s->w.buffer_len = 256;
    if (s->w.max_buffers == 0)
        s->w.max_buffers = -1;
    s->r.head = s->r.tail = NULL;
    s->w.head = s->w.tail = NULL;
    s->r.data_bytes = s->r.buffers = 0;
    s->w.data_bytes = s->w.buffers = 0;
    s->eof = false;
    s->write_error = false;
    s->read_blocked = 0;
    s->state_change.pending = false;
    s->state_change.cb = on_state_change;
}

void ustream_free(struct ustream *s) {
    if (s->free)
        s->free(s);
    uloop_timeout_cancel(&s->state_change);
    free_bufs(&s->r);
    free_bufs(&s->w);
}

/* Reading */

char *ustream_reserve(struct ustream *s, int *len) {
    struct ustream_buf *buf = s->r.tail;

    if (buf && buf->tail == buf->end && buf->data > buf->head) {
        size_t used = (size_t)(buf->tail - buf->data);

        memmove(buf->head, buf->data, used);
        buf->data = buf->head;
        buf->tail = buf->head + used;
        if (s->string_data)
            *buf->tail = 0;
    }
    if (!buf || buf->tail == buf->end)
        buf = may_add_buf(&s->r) ? add_buf(&s->r, s->r.buffer_len) : NULL;
    if (!buf) {
        s->read_blocked |= READ_BLOCKED_FULL;
        return NULL;
    }
    *len = (int)(buf->end - buf->tail);
    return buf->tail;
}

void ustream_fill(struct ustream *s, int len) {
    s->r.tail->tail += len;
    s->r.data_bytes += len;
    if (s->string_data)
        *s->r.tail->tail = '\0';
    if (s->notify_read)
        s->notify_read(s, s->r.data_bytes);
}

char *ustream_get_read_buf(struct ustream *s, int *buflen) {
    struct ustream_buf *buf = s->r.head;
    int len = buf ? (int)(buf->tail - buf->data) : 0;

    if (buflen)
        *buflen = len;
    return len ? buf->data : NULL;
}

static void unblock(struct ustream *s, enum read_blocked_reason reason) {
    if (!(s->read_blocked & reason))
        return;
    s->read_blocked &= ~(int)reason;
    if (!s->read_blocked && s->watch)
        s->watch(s);
}

void ustream_consume(struct ustream *s, int len) {
    if (len > s->r.data_bytes)
        len = s->r.data_bytes;
    if (len <= 0)
        return;
    take(&s->r, len);
    unblock(s, READ_BLOCKED_FULL);
}

int ustream_read(struct ustream *s, char *buf, int buflen) {
    int copied = 0;

    while (copied < buflen) {
        int len;
        char *data = ustream_get_read_buf(s, &len);

        if (!data)
            break;
        if (len > buflen - copied)
            len = buflen - copied;
        memcpy(buf + copied, data, (size_t)len);
        copied += len;
        ustream_consume(s, len);
    }
    return copied;
}

void ustream_set_read_blocked(struct ustream *s, bool set) {
    if (set)
        s->read_blocked |= READ_BLOCKED_USER;
    else
        unblock(s, READ_BLOCKED_USER);
}

bool ustream_read_blocked(struct ustream *s) {
    return (s->read_blocked & READ_BLOCKED_USER) != 0;
}

int ustream_pending_data(struct ustream *s, bool write) {
    return write ? s->w.data_bytes : s->r.data_bytes;
}

/* Writing */

void ustream_fail_writing(struct ustream *s) {
    s->write_error = true;
    free_bufs(&s->w);
    ustream_state_change(s);
}

static int buffer_output(struct ustream *s, const char *data, int len) {
    int buffered = 0;

    while (buffered < len) {
        struct ustream_buf *buf = s->w.tail;
        int rest = len - buffered;

        if (!buf || buf->tail == buf->end) {
            /* Where the number of buffers does not count, one that takes all of it saves writes later. */
            int size = s->w.max_buffers < 0 && rest > s->w.buffer_len ? rest : s->w.buffer_len;

            buf = may_add_buf(&s->w) ? add_buf(&s->w, size) : NULL;
        }
        if (!buf)
            break;
        if (rest > buf->end - buf->tail)
            rest = (int)(buf->end - buf->tail);
        memcpy(buf->tail, data + buffered, (size_t)rest);
        buf->tail += rest;
        s->w.data_bytes += rest;
        buffered += rest;
    }
    return buffered;
}

int ustream_write(struct ustream *s, const char *buf, int len, bool more) {
    int taken = 0;

    if (s->write_error || len <= 0)
        return 0;
    if (!s->w.data_bytes) {
        taken = s->write(s, buf, len, more);
        if (taken < 0) {
            ustream_fail_writing(s);
            return -1;
        }
        if (taken == len)
            return len;
        taken += buffer_output(s, buf + taken, len - taken);
        if (s->watch)
            s->watch(s);
        return taken;
    }
    return buffer_output(s, buf, len);
}

void ustream_write_pending(struct ustream *s) {
    int total = 0;

    while (s->w.data_bytes) {
        struct ustream_buf *buf = s->w.head;
        int taken = s->write(s, buf->data, (int)(buf->tail - buf->data), buf->next != NULL);

        if (taken < 0) {
            ustream_fail_writing(s);
            break;
        }
        if (taken == 0)
            break;
        take(&s->w, taken);
        total += taken;
    }
    /* A burst that was buffered whole shall not keep its memory. */
    if (!s->w.data_bytes) {
        free_bufs(&s->w);
        if (s->watch)
            s->watch(s);
    }
    if (total && s->notify_write)
        s->notify_write(s, total);
}
