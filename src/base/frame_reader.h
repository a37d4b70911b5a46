#pragma once
/// Receiving the frames of a protocol: a header of fixed size, which tells the length of the body, and the
/// body, of 1 to body_max bytes.
///
/// Nothing is done about a frame while no more bytes are buffered than a header has, so a body as short as
/// that waits for what follows it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/stream.h"

namespace arvok {

struct frame_format {
    std::size_t header_size;  ///< at most header_max
    /// The body length that a header tells; nothing after the log lines that say why not.
    std::optional<std::size_t> (*body_length)(std::string_view header);

    // Log lines.
    const char *short_header;  ///< bytes read
    const char *waiting;       ///< bytes there are, body length
    const char *short_body;    ///< bytes read, body length

    /// The length of a header that is read while no more than a header's size remains buffered is forgotten:
    /// it is only stored once the wait for the body is known to go on.
    bool forgets_length = false;
};

constexpr std::size_t header_max = 12;  ///< of all protocols

class frame_reader {
  public:
    /// `receive` is given a body, which it may change. It may close the stream.
    frame_reader(const frame_format &format, callback<void(std::string &body)> receive)
        : format_(format), receive_(receive) {}

    /// On a new connection.
    void reset() { pending_ = 0; }

    /// Handles every frame that is complete, of the bytes buffered. False after a fault, which is logged: the
    /// connection cannot go on.
    bool read(stream &from, std::size_t available);

  private:
    std::optional<std::size_t> read_header(stream &from) const;

    const frame_format &format_;
    callback<void(std::string &)> receive_;
    std::size_t pending_ =
        0;  ///< body length of the header that was read last and waits for its body; 0: none
};

}  // namespace arvok
