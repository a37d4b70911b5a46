#pragma once
/// The time that a peer has to answer what was written to its stream.
///
/// The loop runs overdue timers before it reads sockets: behind a call that blocked, the time is over while
/// the answer lies there. And a peer that still reads what was written before cannot answer yet, nor is its
/// answer read while the stream is held. So the time counts only when everything that had come in when it was
/// over has been read, which nothing that comes later puts off. It begins again when it is over and the peer
/// was behind when it began, with something unsent before what it is to answer, or still is, and has taken
/// something meanwhile. A peer that takes nothing for that time has missed it. While the stream's owner holds
/// it, nobody has.

#include <cstdint>
#include <optional>

#include "base/loop.h"
#include "base/stream.h"

namespace arvok {

class deadline {
  public:
    /// The stream is borrowed.
    deadline(stream &from, callback<void()> missed);

    /// What is written next must be answered within `ms` milliseconds. What was due before is not.
    void arm(int ms);
    /// The answer has come, or the connection has ended.
    void cancel() { timer_.cancel(); }
    /// Milliseconds until the time is looked at, -1: nothing is due.
    int remaining() { return timer_.remaining(); }

  private:
    void look();

    stream &stream_;
    callback<void()> missed_;
    timer timer_;
    int ms_ = 0;
    std::uint64_t asked_ = 0;               ///< where in the output what is to be answered begins
    std::uint64_t taken_ = 0;               ///< what of the output the peer had taken at the last look
    bool was_behind_ = false;               ///< then, or when it was armed, it had not all before that
    std::optional<std::uint64_t> in_time_;  ///< where in the input ends what came in time
};

}  // namespace arvok
