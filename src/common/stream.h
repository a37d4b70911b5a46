#pragma once
/// A TCP connection on the loop: a descriptor and its buffered stream, which may be closed from anywhere.
///
/// The stream library goes on using a stream after its read callback has returned, so a connection that is
/// closed from there is only marked: it stops reading, its callbacks fall silent, and it is taken down on the
/// loop's next turn. To everybody else it is closed at once: the descriptor reads -1.
///
/// No peer gets more than its turn: one that sends faster than it is served is read again on the loop's next
/// turn, after everybody else, and one that does not take its answers is not read from meanwhile, where a
/// limit says so.

extern "C" {
#include <libubox/uloop.h>
#include <libubox/ustream.h>
}

namespace arvok {

struct tcp_stream {
    ustream_fd sf;  ///< the first member: the library's callbacks hand it back
    uloop_timeout
        next_turn;  ///< takes down what was closed from its read callback, or reads on after a pause
    int fd;         ///< -1 when closed
    bool in_read;
    int taken;  ///< bytes read since the last pause
    bool closing;
    bool held;       ///< more than unsent_max bytes wait to be sent: input waits, also what is buffered
    int unsent_max;  ///< 0: no limit

    /// `avail` is the number of bytes buffered. May close the stream. Leaves a held stream's input alone.
    void (*on_read)(tcp_stream &stream, int avail);
    /// End of stream or a write error. May close the stream.
    void (*on_broken)(tcp_stream &stream);
    /// A closed connection has been taken down: its record may go. Null: nothing happens.
    void (*on_down)(tcp_stream &stream);
};

/// Longest body of every protocol here, and the size of the single read buffer.
constexpr int max_body = 16384;

/// How many bytes may wait to be sent to the gateway and to the cloud before their further requests wait too.
constexpr int peer_unsent_max = 256 * 1024;

/// Sets up a closed stream; unsent_max and on_down may be set afterwards.
void stream_init(tcp_stream &stream, void (*on_read)(tcp_stream &, int), void (*on_broken)(tcp_stream &));

/// Attaches a connected or connecting non-blocking socket, which then belongs to the stream.
void stream_open(tcp_stream &stream, int fd);

/// Closes the descriptor and drops what is buffered; harmless on a closed stream.
void stream_close(tcp_stream &stream);

/// Closes it and takes it down, in whichever state it is, without a callback: its record may go. Not from
/// on_read.
void stream_release(tcp_stream &stream);

/// Takes `len` buffered bytes. Returns how many there were.
int stream_read(tcp_stream &stream, void *buf, int len);

/// Queues bytes; what the socket does not take at once is sent as it drains.
void stream_write(tcp_stream &stream, const void *buf, int len);

}  // namespace arvok
