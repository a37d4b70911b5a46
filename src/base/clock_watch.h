#pragma once
/// Notices that somebody sets the system's time of day: by hand, from the network, or from the memory of a
/// clock.

#include "base/callback.h"
#include "base/descriptor.h"
#include "base/loop.h"

namespace arvok {

class clock_watch {
  public:
    /// `set` is called on the loop, once for several settings that follow at once.
    explicit clock_watch(callback<void()> set);

    /// Notices what happens from now on. Where the system cannot tell, nothing ever does.
    void start();

  private:
    void arm();
    void noticed();

    callback<void()> set_;
    descriptor timer_;
    readable_watch watch_;
};

}  // namespace arvok
