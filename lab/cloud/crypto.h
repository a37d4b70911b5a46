/// The platform's half of the encryption: its RSA private key, the AES keys of a connection, and what is
/// drawn at random.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "release.h"

namespace arvok::lab {

class PlatformKey {
  public:
    /// Reads a private key in PEM form; nothing when the text holds no RSA key.
    static std::optional<PlatformKey> read(std::string_view pem);

    /// Decrypts a text that was filled up to whole blocks of the modulus' size and encrypted block by block
    /// without padding. Every filling byte holds the count of filling bytes, modulo 256. Nothing when the
    /// length is no multiple of the block's, a block is no number below the modulus, or the filling is wrong.
    std::optional<std::string> decrypt(std::string_view sealed) const;

  private:
    explicit PlatformKey(EVP_PKEY *key) : key_(key) {}
    std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>> key_;
};

inline constexpr std::size_t aes_key_size = 16;

/// AES-128-ECB with the standard padding; `key` has 16 characters. Nothing when a text to decrypt was not
/// encrypted with this key, or not at all.
std::optional<std::string> encrypt(std::string_view key, std::string_view plain);
std::optional<std::string> decrypt(std::string_view key, std::string_view sealed);

/// Letters and digits.
std::string random_text(std::size_t length);

}  // namespace arvok::lab
