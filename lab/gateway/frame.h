/// The frame of the gateway link: magic, body length (both big-endian, 4 bytes), body.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace arvok::lab {

inline constexpr std::uint32_t frame_magic = 0x3f721fb5;
inline constexpr std::size_t frame_header = 8;
inline constexpr std::size_t frame_max_body = 16384;                         ///< that the access point takes
inline constexpr std::size_t frame_max_received = std::size_t{1024} * 1024;  ///< that it may send here

/// A header with any magic and any length, also wrong ones.
std::string make_header(std::uint32_t magic, std::uint32_t length);

/// A whole frame. The body's size is the caller's business: a peer may want one that is too long.
std::string make_frame(std::string_view body);

/// Cuts a byte stream into frames. What it holds never exceeds one frame plus what was last appended, as long
/// as the caller takes all frames after each append.
class FrameReader {
  public:
    enum class Next { incomplete, frame, bad_magic, bad_length };

    void append(std::string_view bytes) { pending_.append(bytes); }
    /// Takes the next frame's body. After bad_magic or bad_length the stream is lost: `word` holds the
    /// offending header word and every further call says the same.
    Next next(std::string &body, std::uint32_t &word);

  private:
    std::string pending_;
};

}  // namespace arvok::lab
