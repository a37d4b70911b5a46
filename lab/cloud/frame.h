/// The frame of the cloud platform: magic, body length (4 bytes, big-endian), body; and the body's text:
/// base64 and an end of line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace arvok::lab {

inline constexpr std::string_view frame_magic = "QZSGWMP2";
inline constexpr std::string_view end_of_line = "\r\n";
inline constexpr std::size_t frame_header = 12;
inline constexpr std::size_t frame_max_body = 16384;                         ///< that the device takes
inline constexpr std::size_t frame_max_received = std::size_t{1024} * 1024;  ///< that it may send here

/// A header with any magic of 8 characters and any length, also wrong ones.
std::string make_header(std::string_view magic, std::uint32_t length);

/// A whole frame. The body's size is the caller's business: a peer may want one that is too long.
std::string make_frame(std::string_view body);

/// The body that carries these bytes, end of line and all, and back; nothing when the end of line is missing
/// or the rest is no base64.
std::string make_body(std::string_view bytes);
std::optional<std::string> open_body(std::string_view body);

std::string to_base64(std::string_view bytes);
/// Strict: no blanks, whole groups of four. Nothing for an empty text.
std::optional<std::string> from_base64(std::string_view text);

/// Cuts a byte stream into frames. What it holds never exceeds one frame plus what was last appended, as long
/// as the caller takes all frames after each append.
class FrameReader {
  public:
    enum class Next { incomplete, frame, bad_magic, bad_length };

    void append(std::string_view bytes) { pending_.append(bytes); }
    /// Takes the next frame's body. After bad_magic (the magic is in `body`) or bad_length (the length is in
    /// `length`) the stream is lost, and every further call says the same.
    Next next(std::string &body, std::uint32_t &length);

  private:
    std::string pending_;
};

}  // namespace arvok::lab
