/*
 * The event loop: descriptors, timers and child processes of one thread. There is one loop per process;
 * nothing here may be called from another thread.
 *
 * The records belong to the caller and must be zeroed before their first use. Any callback may add, delete
 * and free any record, its own included; a record that is still on the loop must be deleted (cancelled)
 * before it is freed.
 */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#include "list.h"

struct uloop_fd;
struct uloop_timeout;
struct uloop_process;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);
typedef void (*uloop_process_handler)(struct uloop_process *c, int ret);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
/// Leave the descriptor's blocking mode alone; without it, uloop_fd_add makes the descriptor non-blocking.
#define ULOOP_BLOCKING (1 << 3)

struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;    ///< the peer has shut down its side
    bool error;  ///< error or hang-up; the descriptor has been taken off the loop already
    bool registered;
    uint8_t flags;
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    int64_t expiry;  ///< private: CLOCK_MONOTONIC in microseconds
};

struct uloop_process {
    struct list_head list;
    bool pending;
    uloop_process_handler cb;  ///< `ret`: the status of waitpid()
    pid_t pid;
};

/// Private, for the inline functions below.
extern volatile bool uloop_cancelled;

/// Prepares the loop. From here to uloop_done, SIGINT, SIGTERM and SIGCHLD are the loop's; from here on,
/// SIGPIPE is ignored; each unless the process has chosen otherwise. 0, or -1 with errno; calling it again
/// does nothing.
int uloop_init(void);

/// Releases the loop. Timers and processes that are still armed are forgotten without a call; descriptors
/// that are still watched cannot be added to another loop before they are deleted.
void uloop_done(void);

/// Takes turns until uloop_end(), SIGINT or SIGTERM when `timeout` is negative; otherwise takes one: the
/// timers due, the children that have ended, then at most one descriptor, which it waits for at most
/// `timeout` milliseconds. Forgets an end and a signal that came before it, also when it is called from a
/// callback of another run. Returns the number of the signal that ended it, otherwise 0.
int uloop_run_timeout(int timeout);

static inline int uloop_run(void) {
    return uloop_run_timeout(-1);
}

static inline void uloop_end(void) {
    uloop_cancelled = true;
}

/// Whether a run has been told to end and has not ended yet.
bool uloop_cancelling(void);

/// Watches `sock->fd` for `flags`; on a watched descriptor, changes them. Calls sock->cb with the ULOOP_READ
/// and ULOOP_WRITE that hold, which may be none at end of file or error. 0, or -1 with errno.
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

/// Stops watching; harmless when it was not watched. Must come before close(). 0, or -1 with errno.
int uloop_fd_delete(struct uloop_fd *sock);

/// Arms the timer to run once in `msecs`, whether or not it is armed, up to a millisecond early. One that is
/// armed for the past runs before others that are due.
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

/// 0, or -1 when it was not pending.
int uloop_timeout_cancel(struct uloop_timeout *timeout);

/// Whole milliseconds until the timer runs, negative when it is overdue, -1 when it is not pending.
int uloop_timeout_remaining(struct uloop_timeout *timeout);
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

/// Calls p->cb once when the child p->pid has ended. The loop takes the status of every child that ends, so
/// this must come before it next runs. -1 when `p` is pending already.
int uloop_process_add(struct uloop_process *p);

/// 0, or -1 when it was not pending. The child goes on and is not waited for any more.
int uloop_process_delete(struct uloop_process *p);

#endif
