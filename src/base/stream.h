#pragma once
/// A TCP connection on the loop: a descriptor and its buffered stream, which may be closed from anywhere.
///
/// The stream library goes on using a stream after its read callback has returned, so a connection that is
/// closed from there is only marked: it stops reading, its callbacks fall silent, and it is taken down on the
/// loop's next turn. To everybody else it is closed at once.
///
/// No peer gets more than its turn: one that sends faster than it is served is read again on the loop's next
/// turn, after everybody else, and one that does not take its answers is not read from meanwhile. Nor is one
/// whose answer is still to come, for as long as its owner holds it.

extern "C" {
#include <libubox/ustream.h>
}

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/callback.h"
#include "base/loop.h"

namespace arvok {

/// Longest body of every protocol here, and the size of the single read buffer.
constexpr std::size_t body_max = 16384;

class stream {
  public:
    struct handlers {
        /// So many bytes are buffered. May close the stream. Leaves a held stream's input alone.
        callback<void(std::size_t available)> read;
        /// End of stream or a write error, and what had come before has been announced. May close the stream.
        callback<void()> broken;
        /// A closed connection has been taken down: the stream may be destroyed. May be left out.
        callback<void()> down = {};
    };

    /// When more than `unsent_max` bytes wait to be sent, no more is read until they are fewer.
    stream(const handlers &who, std::size_t unsent_max);
    /// Closes and takes down, in whichever state it is, without a callback. Not from the read callback.
    ~stream();
    stream(const stream &) = delete;
    stream &operator=(const stream &) = delete;

    /// Attaches a connected or connecting non-blocking socket, which then belongs to the stream; the
    /// connection before goes.
    void open(int fd);
    /// Closes the descriptor and drops what is buffered; harmless on a closed stream.
    void close();

    bool is_open() const { return fd_ >= 0; }
    /// The open descriptor, or -1.
    int fd() const { return fd_; }
    /// More than the limit waits to be sent, or the owner holds it: input waits, also what is buffered.
    bool is_held() const { return held_ || on_hold_; }
    /// The owner holds it.
    bool is_on_hold() const { return on_hold_; }
    /// Nothing more is read until release(). That the other side has gone shows within half a second all the
    /// same.
    void hold();
    void release();

    /// Whether more has come from the peer, on a connection that is open.
    bool has_input();
    /// Takes up to `size` buffered bytes. Returns how many there were.
    std::size_t read(char *to, std::size_t size);
    /// Queues bytes; what the socket does not take at once is sent as it drains.
    void write(std::string_view bytes);
    /// How many queued bytes the socket has not taken yet.
    std::size_t unsent();

    // --- how far the connection is, in bytes since it was opened ---

    /// What has come in, read or not.
    std::uint64_t arrived();
    /// Whether the read callback has had so much of it.
    bool has_served(std::uint64_t position);
    std::uint64_t written() const { return written_; }
    /// What of that has reached the other side.
    std::uint64_t delivered();

  private:
    void readable();
    void drained();
    void next_turn();
    void announce();
    void pause();
    void end();
    bool has_other_side();
    void take_down();
    std::uint64_t buffered();

    handlers handlers_;
    std::size_t unsent_max_;
    owned<ustream_fd, stream> library_;
    timer next_turn_;  ///< takes down what was closed from its read callback, reads on, or looks who is there
    int fd_ = -1;
    std::size_t taken_ = 0;  ///< bytes read since the last pause
    std::uint64_t read_ = 0, written_ = 0;
    std::optional<std::uint64_t> end_;  ///< no more will come; what had, when it was last looked
    bool in_read_ = false;
    bool closing_ = false;  ///< closed, and to be taken down
    bool held_ = false;     ///< by what waits to be sent; what is buffered is to be announced
    bool on_hold_ = false;  ///< by the owner
};

}  // namespace arvok
