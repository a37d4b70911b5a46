#pragma once
/// The gateway link's frame: {u32 magic, u32 length} in network byte order and a body of 1 to body_max bytes,
/// which is JSON text in the clear until a key has been agreed, and AES-CBC under that key from then on.

#include <string>

#include "base/crypto.h"
#include "base/frame_reader.h"

namespace arvok::gateway {

/// For the receiver, whom alone the length limit binds.
extern const frame_format link_frames;

/// Makes a text the body of a frame, encrypted if there is something to encrypt it with. Nothing is sent of
/// it when that fails: false.
bool make_frame(std::string &text, aes *cipher);

}  // namespace arvok::gateway
