#pragma once
/// AES-128 and RSA encryption. Failures are logged and reported as each function says; nothing is
/// retried.

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/handle.h"

namespace arvok {

constexpr std::size_t aes_key_size = 16;

/// Overwritten at its end.
struct aes_key : std::array<unsigned char, aes_key_size> {
    ~aes_key() { OPENSSL_cleanse(data(), size()); }
};

/// The key that is the first aes_key_size bytes of a text; what is missing is zero.
aes_key aes_key_of(std::string_view bytes);

enum class aes_mode {
    cbc,  ///< zero initialisation vector; filled up with zero bytes to whole blocks, which decryption leaves
          ///< in place
    ecb,  ///< PKCS#7 padding
};

/// AES-128 with one key, which is set up once for any number of messages. These are encrypted and decrypted
/// in their place; what they are after a failure is not defined.
class aes {
  public:
    aes(aes_mode mode, const aes_key &key);

    /// What stands before `begin` stays as it is.
    bool encrypt(std::string &text, std::size_t begin = 0);
    /// False when what was encrypted is not whole.
    bool decrypt(std::string &text);

  private:
    using context = handle<EVP_CIPHER_CTX, &EVP_CIPHER_CTX_free>;
    using block = std::array<unsigned char, aes_key_size>;

    // One direction. It is never initialised again, so in CBC mode it goes on from the last block of the
    // message before, which is known and is taken out again.
    struct direction {
        context keyed;
        block chained{};
    };

    context make(const aes_key &key, bool encrypt) const;
    void take_out(unsigned char *first, const block &before) const;
    bool run(direction &which, unsigned char *blocks, std::size_t size, const char *word) const;
    bool remove_filling(std::string &text) const;

    aes_mode mode_;
    direction encryption_, decryption_;
};

/// A public RSA key, read from its PEM text (SubjectPublicKeyInfo) when it is first used.
class rsa_public_key {
  public:
    explicit rsa_public_key(std::string pem) : pem_(std::move(pem)) {}

    /// Fills the text up to whole blocks of the modulus length k with bytes of value k - size mod k (a whole
    /// block when nothing is missing) and encrypts each block without padding; a block that is not below the
    /// modulus becomes zero bytes. Empty, after one log line, when the PEM text holds no RSA key.
    std::string encrypt(std::string_view plain);

  private:
    bool read();

    std::string pem_;
    handle<EVP_PKEY, &EVP_PKEY_free> key_;
};

}  // namespace arvok
