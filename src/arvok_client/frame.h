#pragma once
/// The gateway link's frame: {u32 magic, u32 length} in network byte order and a body of 1 to max_body bytes,
/// which is JSON text in the clear until a key has been agreed, and AES-CBC under that key from then on.

#include <cstdint>
#include <vector>

#include "common/handle.h"

namespace arvok {

constexpr std::uint32_t frame_magic = 0x3f721fb5;
constexpr int frame_header_size = 8;

/// The whole frame of a text of `len` characters; `key` may be null. Empty when the text cannot be encrypted.
/// The length limit binds the receiver only.
std::vector<char> frame_encode(const char *text, int len, const unsigned char *key);

/// The body length that a header of frame_header_size bytes announces, or 0 after the log lines that say why
/// not.
int frame_body_length(const void *header);

/// A body of `len` bytes, terminated by one more, as text: up to its first zero byte, or decrypted. Null when
/// it cannot be decrypted.
text_ptr frame_body_text(const char *body, int len, const unsigned char *key);

}  // namespace arvok
