#pragma once
/// SIGINT and SIGTERM, which end the process in order: held back from the beginning on, and heard on the
/// loop.
///
/// The loop's own handling does not do: it forgets what came before it runs, and a call that waits for the
/// bus forgets what came meanwhile.

#include "base/descriptor.h"
#include "base/loop.h"

namespace arvok {

/// Holds the two signals back from its beginning to the end of the process, in all threads that begin later.
class held_signals {
  public:
    held_signals();
    held_signals(const held_signals &) = delete;
    held_signals &operator=(const held_signals &) = delete;

    /// From now on, one that has come or comes ends the loop. The loop is there.
    void watch();
    /// No more; the loop may go.
    void ignore();

  private:
    void end_loop();

    descriptor come_;
    readable_watch watch_;
};

/// Whether the process is to end: one of the two has come, or the loop is ending. What takes many calls that
/// wait asks between them.
bool is_ending();

}  // namespace arvok
