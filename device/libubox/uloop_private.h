/*
 * What the parts of the loop know of each other.
 */
#ifndef ULOOP_PRIVATE_H
#define ULOOP_PRIVATE_H

#include <stdbool.h>

/// Takes SIGINT, SIGTERM and SIGCHLD for the time of a run, where the process has not made its own
/// arrangements.
void uloop_signals_take(void);
void uloop_signals_return(void);

/// Ignores SIGPIPE from here on, or lets it be as before.
void uloop_sigpipe_ignore(bool ignore);

/// The descriptor that becomes readable with a signal; handlers write it, so that none is missed before a
/// wait.
extern int uloop_wake_fd;

/// The termination signal that has come since the outermost run began, or 0.
int uloop_signal_number(void);
void uloop_signal_forget(void);

/// Whether a child may have ended since the last call.
bool uloop_child_ended(void);
void uloop_child_look(void);

/// How many timers are armed. In no public header, because the real library does not tell: for tests, which
/// look it up by its name.
int uloop_timeouts_armed(void);

#endif
