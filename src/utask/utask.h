#pragma once
/// Hands work to the loop thread.
///
/// Nearly all state of the agent may only be touched from the loop thread. Any thread may queue a (function,
/// argument) pair with utask_set; the pairs travel through a pipe that the loop watches and run there in the
/// order in which they were queued. utask_asyn_set runs slow work on a thread of its own first.
///
/// `arg` passes with the task: the function that runs it releases what it owns, and adopts it as its first
/// act.

namespace arvok {

using utask_fn = void (*)(void *arg);

/// Opens the pipe and watches it; exits with status 1 when there is no pipe to be had. Before every other
/// module.
void utask_init();

/// Closes the pipe and the loop library. After every other module. Of the tasks still queued, those with an
/// argument run once more, to release it.
void utask_done();

/// Queues `fn(arg)` for the loop thread; a null `fn` is queued and dropped. From any thread. Returns 0, or -1
/// after one log line when the pipe is full or closed: `arg` then stays the caller's.
int utask_set(void *arg, utask_fn fn);

/// Runs `fn(arg)` on a detached thread and then queues `done(arg)` for the loop thread; either may be null.
/// Returns 0, or -1 after one log line when there is no thread to be had: neither runs, `arg` stays the
/// caller's.
int utask_asyn_set(void *arg, utask_fn fn, utask_fn done);

}  // namespace arvok
