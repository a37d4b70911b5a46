#pragma once
/// SIGINT and SIGTERM, held back until somebody can act on them.

#include <csignal>

namespace arvok {

/// While it lives the two signals wait: none is lost before the turn of the loop in which it ends, whose
/// handling of them takes over from there.
class held_signals {
  public:
    held_signals();
    ~held_signals();
    held_signals(const held_signals &) = delete;
    held_signals &operator=(const held_signals &) = delete;

    /// Waits for one of them. False when none has come within `seconds`.
    bool wait(int seconds) const;
    /// Holds them back until the process has ended.
    void keep() { kept_ = true; }

  private:
    sigset_t held_, before_;
    bool kept_ = false;
};

}  // namespace arvok
