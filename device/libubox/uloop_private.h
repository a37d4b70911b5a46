/*
 * What the parts of the loop know of each other.
 */
#ifndef ULOOP_PRIVATE_H
#define ULOOP_PRIVATE_H

#include <stdbool.h>

/// Takes SIGINT, SIGTERM and SIGCHLD until uloop_signals_return, and ignores SIGPIPE for good, each where the
/// process has not made its own arrangements.
void uloop_signals_take(void);
void uloop_signals_return(void);

/// The descriptor that becomes readable with a signal; handlers write it, so that none is missed before a
/// wait.
extern int uloop_wake_fd;

/// The termination signal that has come since uloop_signal_forget, or 0.
int uloop_signal_number(void);
void uloop_signal_forget(void);

/// Whether a child may have ended since the last call.
bool uloop_child_ended(void);

/// How many timers are armed. In no public header, because the real library does not tell: for tests, which
/// look it up by its name.
int uloop_timeouts_armed(void);

#endif
