/// The gateway's half of the key agreement and the cipher of the link. Stateless.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace arvok::lab {

using LinkKey = std::array<unsigned char, 16>;

struct DhAnswer {
    std::string public_value;      ///< the gateway's, base64
    LinkKey key{};                 ///< the shared number's bytes, left-aligned, cut or zero-filled to 16
    std::size_t secret_bytes = 0;  ///< how many bytes the shared number has; 15 once in 256 negotiations
};

/// Answers a key request: makes a private value for the group (p, g) and combines it with the other side's
/// public value. All texts are base64 of big-endian magnitudes. Nothing, with the reason in `error`, when a
/// text is no base64, when p is not a usable modulus or when a value lies outside of the group.
std::optional<DhAnswer> answer_dh(const char *p, const char *g, const char *public_value, std::string &error);

/// AES-128-CBC with a zero initialisation vector; encryption pads with zero bytes to a multiple of 16.
/// Nothing when a text to decrypt is no multiple of 16.
std::optional<std::string> encrypt(const LinkKey &key, std::string_view plain);
std::optional<std::string> decrypt(const LinkKey &key, std::string_view sealed);

}  // namespace arvok::lab
