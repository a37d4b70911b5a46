#pragma once
/// Timers and descriptors on the loop, as members of what they belong to: they undo themselves at its end.

extern "C" {
#include <libubox/uloop.h>
}

#include "base/callback.h"
#include "base/descriptor.h"

namespace arvok {

/// A timer that fires once each time it is armed.
class timer {
  public:
    explicit timer(callback<void()> fire);
    ~timer() { cancel(); }
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;

    /// Fires in `ms` milliseconds, and not when it was armed for before.
    void arm(int ms) { uloop_timeout_set(&timeout_, ms); }
    void cancel() { uloop_timeout_cancel(&timeout_); }
    bool is_armed() const { return timeout_.pending; }
    /// Milliseconds until it fires; negative when it is overdue, -1 when it is not armed.
    int remaining() { return static_cast<int>(uloop_timeout_remaining(&timeout_)); }

  private:
    callback<void()> fire_;
    owned<uloop_timeout, timer> timeout_;
};

/// Tells, as long as it is so, that a descriptor that belongs to somebody else is readable.
class readable_watch {
  public:
    explicit readable_watch(callback<void()> readable);
    ~readable_watch() { stop(); }
    readable_watch(const readable_watch &) = delete;
    readable_watch &operator=(const readable_watch &) = delete;

    /// The descriptor stays the caller's, who keeps it open until stop(); it is made non-blocking. False when
    /// the loop cannot watch it. Starting anew replaces the watch; before one of another descriptor, stop().
    bool start(int fd);
    /// Nothing is told any more, also of what has come already. It may be started anew.
    void stop();

  private:
    callback<void()> readable_;
    owned<uloop_fd, readable_watch> watch_;
};

/// Fires once each time it is armed, as soon as the loop has served every descriptor that was readable then:
/// whoever waits has their turn first. A timer would not do, for due timers come before all descriptors.
class next_round {
  public:
    explicit next_round(callback<void()> fire);
    ~next_round() { cancel(); }
    next_round(const next_round &) = delete;
    next_round &operator=(const next_round &) = delete;

    /// From now on, and not when it was armed for before.
    void arm();
    void cancel();

  private:
    void pass();

    callback<void()> fire_;
    descriptor always_readable_;  ///< the loop's descriptors take turns
    readable_watch turn_;
    timer instead_;  ///< of the descriptor, when there is none to be had
};

}  // namespace arvok
