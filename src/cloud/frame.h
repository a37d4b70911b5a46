#pragma once
/// The cloud connection's frame: "QZSGWMP2", u32 length in network byte order, and a body of that length,
/// which is 1 to body_max bytes of base64 text with CR LF at its end. What the text encodes is JSON,
/// encrypted as the stage of the connection asks for.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/callback.h"
#include "base/crypto.h"

namespace arvok::cloud {

/// Where the connection stands.
enum class stage {
    bootstrap,   ///< Boot is exchanged with the bootstrap server
    challenge,   ///< a business server's challenge code is fetched
    activating,  ///< the device asks for an identity
    connecting,  ///< the device proves its identity
    connected,   ///< heartbeats, and the platform's requests
};

/// What bodies are encrypted with. What the device says in an exchange goes to the platform's key, and the
/// answer comes in the key that the device has put in; only the challenge code is fetched in clear.
struct key_ring {
    rsa_public_key platform;
    std::optional<aes_key> client;  ///< for the answer to the message in flight
    std::optional<aes> server;      ///< for both directions, once connected
};

constexpr std::size_t frame_header_size = 12;

/// Writes the frame of a text, a long one in pieces: it is never there as a whole. Returns its size; 0, after
/// a log line where there is something to say, when it cannot be built. The length limit binds the receiver
/// only.
std::size_t write_frame(stage at, key_ring &keys, std::string text, callback<void(std::string_view)> write);

/// The body length that a header tells; nothing after the log lines that say why not.
std::optional<std::size_t> body_length(std::string_view header);

/// The plain text of a body. Nothing, after a log line where there is something to say, when the message is
/// to be dropped.
std::optional<std::string> decode_body(stage at, key_ring &keys, std::string_view body);

}  // namespace arvok::cloud
