/// The loop of a program that SIGTERM and SIGINT end in order, however early they come.
#ifndef ARVOK_DEVICE_HELD_LOOP_H
#define ARVOK_DEVICE_HELD_LOOP_H

#include <csignal>

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

/// From its beginning, the first thing in main(), both signals wait until the loop runs: the loop forgets
/// those that it was sent before.
class HeldLoop {
  public:
    HeldLoop() {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGINT);
        sigaddset(&ends, SIGTERM);
        sigprocmask(SIG_BLOCK, &ends, &before());
    }
    HeldLoop(const HeldLoop &) = delete;
    HeldLoop &operator=(const HeldLoop &) = delete;

    /// Until one of the two comes, or uloop_end().
    static void run() {
        uloop_timeout begun{};
        begun.cb = [](uloop_timeout *) { sigprocmask(SIG_SETMASK, &before(), nullptr); };
        uloop_timeout_set(&begun, 0);
        uloop_run_timeout(-1);
        uloop_timeout_cancel(&begun);
    }

  private:
    static sigset_t &before() {
        static sigset_t mask;
        return mask;
    }
};

}  // namespace arvok

#endif
