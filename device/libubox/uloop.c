#include <errno.h>
#include <fcntl.h>
#include <libubox/uloop.h>
#include <limits.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "uloop_private.h"

enum { EVENTS_PER_WAIT = 10 };

/* What the last wait has found and nobody has served yet. One descriptor is served in each turn of the loop,
 * so that timers come between them; a run inside a callback goes on with the rest. A callback may delete any
 * descriptor, which wipes it out of here. */
static struct epoll_event found[EVENTS_PER_WAIT];
static int found_next;
static int found_end;

/* A descriptor whose callback is running. An inner run does not call it again for an edge; the edge is kept
 * and served once the callback has returned. */
struct call {
    struct uloop_fd *fd;
    unsigned int kept;
    struct call *outer;
};

volatile bool uloop_cancelled;

static int poll_fd = -1;
static int run_depth;
static struct call *calls;
static struct list_head timeouts = LIST_HEAD_INIT(timeouts);
static struct list_head processes = LIST_HEAD_INIT(processes);

int uloop_init(void) {
    struct epoll_event event = {.events = EPOLLIN, .data = {.ptr = &uloop_wake_fd}};

    if (poll_fd >= 0)
        return 0;
    uloop_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    poll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (uloop_wake_fd < 0 || poll_fd < 0 || epoll_ctl(poll_fd, EPOLL_CTL_ADD, uloop_wake_fd, &event) < 0) {
        int saved = errno;

        uloop_done();
        errno = saved;
        return -1;
    }
    uloop_signals_take();
    return 0;
}

void uloop_done(void) {
    struct uloop_timeout *timeout, *next_timeout;
    struct uloop_process *process, *next_process;

    if (poll_fd >= 0) {
        uloop_signals_return();
        close(poll_fd);
    }
    poll_fd = -1;
    if (uloop_wake_fd >= 0)
        close(uloop_wake_fd);
    uloop_wake_fd = -1;
    found_next = found_end = 0;
    list_for_each_entry_safe(timeout, next_timeout, &timeouts, list) uloop_timeout_cancel(timeout);
    list_for_each_entry_safe(process, next_process, &processes, list) uloop_process_delete(process);
}

/* Descriptors */

static int watch(struct uloop_fd *sock, int operation, unsigned int flags) {
    struct epoll_event event = {.events = EPOLLRDHUP, .data = {.ptr = sock}};

    if (flags & ULOOP_READ)
        event.events |= EPOLLIN;
    if (flags & ULOOP_WRITE)
        event.events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
        event.events |= EPOLLET;
    return epoll_ctl(poll_fd, operation, sock->fd, &event);
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags) {
    if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
        return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
        int mode = fcntl(sock->fd, F_GETFL);

        if (mode < 0 || fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK) < 0)
            return -1;
    }
    if (watch(sock, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, flags) < 0)
        return -1;
    sock->eof = false;
    sock->error = false;
    sock->registered = true;
    sock->flags = (uint8_t)flags;
    return 0;
}

/* Nothing may be delivered to this record any more. */
static void forget_events(struct uloop_fd *sock) {
    for (int i = found_next; i < found_end; i++)
        if (found[i].data.ptr == sock)
            found[i].data.ptr = NULL;
}

static int unregister(struct uloop_fd *sock) {
    if (!sock->registered)
        return 0;
    sock->registered = false;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, NULL);
}

int uloop_fd_delete(struct uloop_fd *sock) {
    forget_events(sock);
    for (struct call *call = calls; call; call = call->outer)
        if (call->fd == sock)
            call->fd = NULL;
    sock->flags = 0;
    return unregister(sock);
}

static bool keep_edge(const struct uloop_fd *fd, unsigned int epoll_events) {
    if (!(fd->flags & ULOOP_EDGE_TRIGGER))
        return false;
    for (struct call *call = calls; call; call = call->outer) {
        if (call->fd == fd) {
            call->kept |= epoll_events;
            return true;
        }
    }
    return false;
}

static void deliver(struct uloop_fd *fd, unsigned int epoll_events) {
    struct call call = {.fd = fd, .outer = calls};

    calls = &call;
    while (epoll_events && call.fd) {
        unsigned int events = 0;

        if (epoll_events & EPOLLIN)
            events |= ULOOP_READ;
        if (epoll_events & EPOLLOUT)
            events |= ULOOP_WRITE;
        call.kept = 0;
        if (fd->cb)
            fd->cb(fd, events);
        epoll_events = call.kept;
    }
    calls = call.outer;
}

/* One wait. A descriptor that has hung up is off the loop before anybody's callback runs: it would be
 * reported for ever. False when the loop is no more. */
static bool find_events(int timeout) {
    int count = epoll_wait(poll_fd, found, EVENTS_PER_WAIT, timeout);

    found_next = 0;
    found_end = count > 0 ? count : 0;
    for (int i = 0; i < found_end; i++) {
        struct uloop_fd *fd = found[i].data.ptr;
        uint64_t wakes;

        if (found[i].data.ptr == &uloop_wake_fd) {
            found[i].data.ptr = NULL;
            if (read(uloop_wake_fd, &wakes, sizeof(wakes)) < 0)
                continue;
        } else {
            fd->eof |= (found[i].events & EPOLLRDHUP) != 0;
            fd->error |= (found[i].events & (EPOLLERR | EPOLLHUP)) != 0;
            if (fd->error)
                unregister(fd);
        }
    }
    return count >= 0 || errno == EINTR;
}

static bool serve_descriptor(int timeout) {
    if (found_next == found_end && !find_events(timeout))
        return false;
    while (found_next < found_end) {
        struct epoll_event event = found[found_next++];

        if (!event.data.ptr || keep_edge(event.data.ptr, event.events))
            continue;
        deliver(event.data.ptr, event.events);
        break;
    }
    return true;
}

/* Timers */

static int64_t now_us(void) {
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs) {
    struct uloop_timeout *other;

    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    timeout->expiry = now_us() + (int64_t)msecs * 1000;
    timeout->pending = true;
    /* From the back: most timers are the latest, and of equal ones this is the last armed. */
    list_for_each_entry_reverse(other, &timeouts, list) {
        if (other->expiry <= timeout->expiry) {
            list_add(&timeout->list, &other->list);
            return 0;
        }
    }
    list_add(&timeout->list, &timeouts);
    return 0;
}

int uloop_timeout_cancel(struct uloop_timeout *timeout) {
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

/* Begun milliseconds do not count, so a timer may run up to one too early. */
static int64_t ms_until(int64_t expiry, int64_t now) {
    return (expiry - now) / 1000;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout) {
    return timeout->pending ? ms_until(timeout->expiry, now_us()) : -1;
}

int uloop_timeout_remaining(struct uloop_timeout *timeout) {
    int64_t ms = uloop_timeout_remaining64(timeout);

    return ms > INT_MAX ? INT_MAX : ms < INT_MIN ? INT_MIN : (int)ms;
}

/* Those due at this moment, with those that are armed for it meanwhile. */
static void run_timeouts(void) {
    int64_t now = now_us();

    while (!list_empty(&timeouts)) {
        struct uloop_timeout *first = list_first_entry(&timeouts, struct uloop_timeout, list);

        if (ms_until(first->expiry, now) > 0)
            return;
        uloop_timeout_cancel(first);
        if (first->cb)
            first->cb(first);
    }
}

/* How long a wait may take, at most `limit` when that is not negative. */
static int wait_limit(int limit) {
    int64_t next;

    if (list_empty(&timeouts))
        return limit;
    next = ms_until(list_first_entry(&timeouts, struct uloop_timeout, list)->expiry, now_us());
    if (next < 0)
        next = 0;
    if (next > INT_MAX)
        next = INT_MAX;
    return limit >= 0 && limit < next ? limit : (int)next;
}

int uloop_timeouts_armed(void) {
    struct uloop_timeout *timeout;
    int count = 0;

    list_for_each_entry(timeout, &timeouts, list) count++;
    return count;
}

/* Child processes */

int uloop_process_add(struct uloop_process *p) {
    if (p->pending)
        return -1;
    p->pending = true;
    list_add_tail(&p->list, &processes);
    return 0;
}

int uloop_process_delete(struct uloop_process *p) {
    if (!p->pending)
        return -1;
    list_del(&p->list);
    p->pending = false;
    return 0;
}

static struct uloop_process *find_process(pid_t pid) {
    struct uloop_process *p;

    list_for_each_entry(p, &processes, list) {
        if (p->pid == pid)
            return p;
    }
    return NULL;
}

/* Takes the status of every child that has ended, also of those that nobody has added. */
static void run_processes(void) {
    int status;
    pid_t pid;

    if (!uloop_child_ended())
        return;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0 || (pid < 0 && errno == EINTR)) {
        struct uloop_process *p = find_process(pid);

        if (!p)
            continue;
        uloop_process_delete(p);
        if (p->cb)
            p->cb(p, status);
    }
}

/* The run */

bool uloop_cancelling(void) {
    return run_depth > 0 && uloop_cancelled;
}

int uloop_run_timeout(int timeout) {
    run_depth++;
    uloop_cancelled = false;
    uloop_signal_forget();

    do {
        run_timeouts();
        run_processes();
    } while (!uloop_cancelled && serve_descriptor(wait_limit(timeout)) && !uloop_cancelled && timeout < 0);

    run_depth--;
    return uloop_signal_number();
}
