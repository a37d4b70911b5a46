#pragma once
/// Memory that goes back to the system when it is not needed any more. The device has little, and the agent
/// runs for years: what one long message took must not be the agent's for ever.

#include <cstddef>

#include "base/loop.h"

namespace arvok {

/// Memory for whoever gives it back with std::free. Never null: out of memory there is nothing left but to
/// say so in one line, to end with status 1 and to be started again.
void *allocate(std::size_t size);

/// From here on a large piece of memory is the system's again as soon as it is released, and so is the end of
/// the rest.
void return_large_memory();

/// The memory of the small pieces that long messages are made of and wait in to be sent, and of what belonged
/// to peers that have gone.
class memory_return {
  public:
    memory_return() : next_(bind<&memory_return::give_back>(*this)) {}

    /// Everything that is free by then is given back, within ten seconds.
    void soon();
    /// A message of so many bytes goes out: the same after a long one.
    void sent(std::size_t bytes) {
        if (bytes > large)
            soon();
    }

  private:
    static constexpr std::size_t large = std::size_t{64} * 1024;

    void give_back();

    timer next_;
    int left_ = 0;
};

}  // namespace arvok
