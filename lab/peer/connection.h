/// One TCP connection: bytes in as they come, bytes out in order, in one piece or dribbled.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "loop.h"
#include "segments.h"

namespace arvok::lab {

/// How bytes are put on the wire.
struct Pace {
    std::size_t split = 0;  ///< bytes per write; 0: all at once
    int interval = 2;       ///< milliseconds between the writes
};

class Connection {
  public:
    /// `received` gets every batch of bytes; `ended` is called once, with the reason, when the other side or
    /// the network ended the connection. Neither may destroy the connection; both may close it.
    Connection(int descriptor, std::function<void(std::string_view)> received,
               std::function<void(const std::string &)> ended);

    /// Queues bytes behind everything queued before.
    void send(std::string bytes, const Pace &pace = {});
    /// Queues bytes as soon as so many milliseconds have passed.
    void send_later(std::string bytes, int delay);
    /// Ends it at once and drops what is queued; `ended` is not called.
    void close();
    bool open() const { return watch_.descriptor() >= 0; }
    /// So far, or up to its end.
    Segments segments() const { return open() ? segments_of(watch_.descriptor()) : segments_; }

  private:
    struct Piece {
        std::string bytes;
        std::size_t written = 0;
        int pause = 0;  ///< milliseconds before the next piece
    };

    void ready(unsigned events);
    void read();
    void write();
    void fail(const std::string &why);

    std::function<void(std::string_view)> received_;
    std::function<void(const std::string &)> ended_;
    Watch watch_;
    Segments segments_;  ///< once it has ended
    Timer pause_;
    std::deque<Piece> queue_;
    std::size_t queued_ = 0;
    std::vector<std::unique_ptr<Timer>> later_;
};

}  // namespace arvok::lab
