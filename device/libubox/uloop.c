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

enum { EVENTS_PER_ROUND = 16 };

/* What one wait has found. A callback may delete any descriptor, so the rounds that are being served
 * (several, when callbacks run the loop again) are chained, and deleting wipes the descriptor out of all of
 * them. */
struct round {
    struct epoll_event events[EVENTS_PER_ROUND];
    int count;
    struct round *outer;
};

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
static struct round *rounds;
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
    uloop_sigpipe_ignore(true);
    return 0;
}

void uloop_done(void) {
    struct uloop_timeout *timeout, *next_timeout;
    struct uloop_process *process, *next_process;

    uloop_sigpipe_ignore(false);
    if (poll_fd >= 0)
        close(poll_fd);
    poll_fd = -1;
    if (uloop_wake_fd >= 0)
        close(uloop_wake_fd);
    uloop_wake_fd = -1;
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
    int result = -1;

    if (!(flags & (ULOOP_READ | ULOOP_WRITE | ULOOP_EDGE_TRIGGER)))
        return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
        int mode = fcntl(sock->fd, F_GETFL);

        if (mode < 0 || fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK) < 0)
            return -1;
    }
    if (sock->registered)
        result = watch(sock, EPOLL_CTL_MOD, flags);
    if (!sock->registered || (result < 0 && errno == ENOENT))
        result = watch(sock, EPOLL_CTL_ADD, flags);
    if (result < 0)
        return -1;
    if (!sock->registered) {
        sock->eof = false;
        sock->error = false;
    }
    sock->registered = true;
    sock->flags = (uint8_t)flags;
    return 0;
}

/* Nothing may be delivered to this record any more, whatever rounds and callbacks are under way. */
static void forget_events(struct uloop_fd *sock) {
    for (struct round *round = rounds; round; round = round->outer)
        for (int i = 0; i < round->count; i++)
            if (round->events[i].data.ptr == sock)
                round->events[i].data.ptr = NULL;
}

int uloop_fd_delete(struct uloop_fd *sock) {
    forget_events(sock);
    for (struct call *call = calls; call; call = call->outer)
        if (call->fd == sock)
            call->fd = NULL;
    if (!sock->registered)
        return 0;
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, NULL);
}

/* Leaves what has been found and not been served to the next wait, which an inner run or a later one makes.
 * Levels are found again by themselves, edges when they are armed again. */
static void put_back_events(void) {
    for (struct round *round = rounds; round; round = round->outer) {
        for (int i = 0; i < round->count; i++) {
            void *source = round->events[i].data.ptr;
            struct uloop_fd *fd = source;

            round->events[i].data.ptr = NULL;
            if (source && source != &uloop_wake_fd && (fd->flags & ULOOP_EDGE_TRIGGER))
                watch(fd, EPOLL_CTL_MOD, fd->flags);
        }
    }
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
        if (epoll_events & EPOLLRDHUP)
            fd->eof = true;
        if (epoll_events & (EPOLLERR | EPOLLHUP)) {
            /* A descriptor in this state would be reported for ever. */
            fd->error = true;
            uloop_fd_delete(fd);
        }
        call.kept = 0;
        if (fd->cb)
            fd->cb(fd, events);
        epoll_events = call.kept;
    }
    calls = call.outer;
}

/* One wait and what it finds. False when the loop is no more. */
static bool serve_descriptors(int timeout) {
    struct round round = {.outer = rounds};
    int count = epoll_wait(poll_fd, round.events, EVENTS_PER_ROUND, timeout);

    if (count < 0)
        return errno == EINTR;
    round.count = count;
    rounds = &round;
    for (int i = 0; i < count && !uloop_cancelled; i++) {
        void *source = round.events[i].data.ptr;

        if (source == &uloop_wake_fd) {
            uint64_t wakes;

            if (read(uloop_wake_fd, &wakes, sizeof(wakes)) < 0)
                continue;
        } else if (source) {
            round.events[i].data.ptr = NULL;
            if (!keep_edge(source, round.events[i].events))
                deliver(source, round.events[i].events);
        }
    }
    put_back_events();
    rounds = round.outer;
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
    timeout->expiry = now_us() + (int64_t)(msecs > 0 ? msecs : 0) * 1000;
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

/* Towards the later millisecond, so that a wait of this length does not end before the timer is due. */
static int64_t ms_until(int64_t expiry) {
    int64_t us = expiry - now_us();

    return us > 0 ? (us + 999) / 1000 : us / 1000;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout) {
    return timeout->pending ? ms_until(timeout->expiry) : -1;
}

int uloop_timeout_remaining(struct uloop_timeout *timeout) {
    int64_t ms = uloop_timeout_remaining64(timeout);

    return ms > INT_MAX ? INT_MAX : ms < INT_MIN ? INT_MIN : (int)ms;
}

/* Those due at this moment; one that re-arms itself for now does not keep the descriptors waiting. */
static void run_timeouts(void) {
    int64_t now = now_us();

    while (!list_empty(&timeouts) && !uloop_cancelled) {
        struct uloop_timeout *first = list_first_entry(&timeouts, struct uloop_timeout, list);

        if (first->expiry > now)
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
    next = ms_until(list_first_entry(&timeouts, struct uloop_timeout, list)->expiry);
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
    /* The child may have ended before anybody looked. */
    uloop_child_look();
    return 0;
}

int uloop_process_delete(struct uloop_process *p) {
    if (!p->pending)
        return -1;
    list_del(&p->list);
    p->pending = false;
    return 0;
}

/* Waits for the children that are watched and for no others, which belong to other parts of the program. A
 * callback may change the list, so the search begins anew after each; ones that are still running are passed
 * by each time. */
static void run_processes(void) {
    bool again = uloop_child_ended();

    while (again && !uloop_cancelled) {
        struct uloop_process *p;

        again = false;
        list_for_each_entry(p, &processes, list) {
            int status = 0;
            pid_t pid = waitpid(p->pid, &status, WNOHANG);

            if (pid == 0 || (pid < 0 && errno == EINTR))
                continue;
            uloop_process_delete(p);
            if (p->cb)
                p->cb(p, pid < 0 ? -1 : status);
            again = true;
            break;
        }
    }
    if (again)
        uloop_child_look();
}

/* The run */

bool uloop_cancelling(void) {
    return run_depth > 0 && uloop_cancelled;
}

int uloop_run_timeout(int timeout) {
    bool outer_cancelled = run_depth > 0 && uloop_cancelled;

    if (poll_fd < 0 && uloop_init() < 0)
        return -1;
    /* A signal before this point found the handlers of the process, so that nothing is lost here. */
    if (run_depth++ == 0) {
        uloop_signal_forget();
        uloop_cancelled = false;
        uloop_signals_take();
        uloop_child_look();
    } else {
        put_back_events();
        if (!uloop_signal_number())
            uloop_cancelled = false;
    }

    do {
        int limit;

        run_timeouts();
        run_processes();
        if (uloop_cancelled)
            break;
        limit = wait_limit(timeout);
        if (!serve_descriptors(limit))
            break;
    } while (!uloop_cancelled && timeout < 0);

    if (outer_cancelled || uloop_signal_number())
        uloop_cancelled = true;
    if (--run_depth == 0)
        uloop_signals_return();
    return uloop_signal_number();
}
