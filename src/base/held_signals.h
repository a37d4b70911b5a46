#pragma once
/// SIGINT and SIGTERM, held back until somebody can act on them.

#include <csignal>

namespace arvok {

/// Holds the two signals back from its beginning on; one that comes meanwhile is not lost.
class held_signals {
  public:
    held_signals();
    held_signals(const held_signals &) = delete;
    held_signals &operator=(const held_signals &) = delete;

    /// From now on they do what the process had arranged, also those that have come already.
    void release();
    /// Holds them back again.
    void hold();

  private:
    sigset_t held_, before_;
};

}  // namespace arvok
