#pragma once
/// Receiving the frames of a protocol: a header of fixed size, which tells the length of the body, and the
/// body, of 1 to max_body bytes.
///
/// Nothing is done about a frame while no more bytes are buffered than a header has, so a body as short as
/// that waits for what follows it.

#include <cstddef>
#include <cstdint>

#include "common/stream.h"

namespace arvok {

constexpr std::size_t header_max = 12;  ///< of all protocols

struct frame_protocol {
    int header_size;
    /// The body length that a header tells, or 0 after a log line.
    int (*body_length)(const void *header);
    /// Runs a body of `len` bytes, terminated by one more and free to be changed. May close the stream.
    void (*receive)(tcp_stream &stream, char *body, int len);

    // Log lines, in the format of qzcap_printf.
    const char *short_header;  ///< bytes read
    const char *waiting;       ///< bytes there are, body length
    const char *short_body;    ///< bytes read, body length

    /// The length of a header that is read while no more than a header's size remains buffered is forgotten:
    /// it is only stored once the wait for the body is known to go on.
    bool forgets_length = false;
};

/// Handles every frame that is complete, of the `avail` bytes buffered. `pending_len` is the body length that
/// was read last and waits for its body, 0 on a new connection. False after a fault, which is logged: the
/// connection cannot go on.
bool read_frames(const frame_protocol &protocol, tcp_stream &stream, int avail, std::int32_t &pending_len);

}  // namespace arvok
