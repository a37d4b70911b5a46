#include <errno.h>
#include <libubox/ustream.h>
#include <unistd.h>

#include "ustream_private.h"

/* The descriptor is watched for edges: arming it again reports anew what holds at that moment, which is how
 * reading resumes after a pause. */
static void watch(struct ustream *s) {
    struct ustream_fd *sf = container_of(s, struct ustream_fd, stream);
    bool reading = !s->read_blocked && !s->eof;
    bool writing = s->w.data_bytes && !s->write_error;

    /* The loop has dropped a descriptor in error; only what can still be read justifies to take it up again.
     */
    if (sf->fd.error && !reading)
        return;
    uloop_fd_add(&sf->fd, ULOOP_EDGE_TRIGGER | (reading ? ULOOP_READ : 0) | (writing ? ULOOP_WRITE : 0));
}

static int write_fd(struct ustream *s, const char *buf, int len, bool more) {
    struct ustream_fd *sf = container_of(s, struct ustream_fd, stream);
    int written = 0;

    (void)more;
    while (written < len) {
        ssize_t n = write(sf->fd.fd, buf + written, (size_t)(len - written));

        if (n >= 0) {
            written += (int)n;
            continue;
        }
        if (errno == EINTR)
            continue;
        /* Not connected yet counts as not ready. */
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTCONN)
            break;
        return -1;
    }
    return written;
}

static void read_fd(struct ustream_fd *sf) {
    struct ustream *s = &sf->stream;

    while (!s->read_blocked && !s->eof) {
        int room;
        char *buf = ustream_reserve(s, &room);
        ssize_t n;

        if (!buf)
            return;
        n = read(sf->fd.fd, buf, (size_t)room);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTCONN))
            return;
        if (n <= 0) {
            s->eof = true;
            ustream_state_change(s);
            return;
        }
        ustream_fill(s, (int)n);
    }
}

static void on_event(struct uloop_fd *fd, unsigned int events) {
    struct ustream_fd *sf = container_of(fd, struct ustream_fd, fd);
    struct ustream *s = &sf->stream;

    if ((events & ULOOP_READ) || fd->eof || fd->error)
        read_fd(sf);
    if (fd->error && !s->write_error)
        ustream_fail_writing(s);
    if ((events & ULOOP_WRITE) && !s->write_error)
        ustream_write_pending(s);
}

static void release(struct ustream *s) {
    uloop_fd_delete(&container_of(s, struct ustream_fd, stream)->fd);
}

void ustream_fd_init(struct ustream_fd *s, int fd) {
    ustream_init(&s->stream);
    s->stream.watch = watch;
    s->stream.write = write_fd;
    s->stream.free = release;
    s->fd.fd = fd;
    s->fd.cb = on_event;
    s->fd.registered = false;
    watch(&s->stream);
}
