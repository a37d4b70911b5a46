#pragma once
/// The Diffie-Hellman exchange of the gateway link, on the side that chooses the group: 128 bits, so that the
/// shared number is the AES key as it stands. Texts are base64 of big-endian magnitudes without leading zero
/// bytes.

#include <openssl/bn.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/crypto.h"

namespace arvok {

class key_exchange {
  public:
    /// What becomes of a peer's public value.
    struct agreement {
        std::optional<aes_key> key = {};  ///< none when the text does not decode, nor when it is refused
        bool refused = false;             ///< the value is not from 2 to p - 2: everybody would know that key
    };

    /// Chooses a fresh group and key pair. After a failure, which is logged, all texts are empty and no key
    /// will be agreed.
    void begin();
    /// Forgets everything.
    void clear();

    const std::string &prime() const { return prime_; }
    const std::string &generator() const { return generator_; }
    const std::string &public_value() const { return public_value_; }

    /// The key that is shared with the side of that public value. A shared number with leading zero bytes
    /// gives a shorter secret, which is logged and used left-aligned in the zero-filled key. Without a key
    /// there is a log line.
    agreement agree(std::string_view peer_public);

  private:
    using number = handle<BIGNUM, &BN_clear_free>;

    bool choose_group();
    number choose_key_pair();
    int shared_secret(const BIGNUM *peer, aes_key &secret) const;

    number p_, g_, private_;
    std::string prime_, generator_, public_value_;
};

}  // namespace arvok
