#pragma once
/// Base64, AES-128, RSA and the Diffie-Hellman exchange of the gateway link.
///
/// Outputs are allocated for the caller and zero-filled one byte beyond their data where stated, so that a
/// text result is always terminated. Failures are logged and reported as each function says; nothing is
/// retried.

#include <openssl/bn.h>

#include <memory>

#include "common/handle.h"

namespace arvok {

constexpr int aes_key_size = 16;

/// Encodes (`encode` true) or decodes base64. Decoding reads `in` as a terminated text; `inlen` then only
/// sizes the buffer. `out` receives a terminated buffer in every case, also on failure. Returns the
/// characters or bytes written, or -1.
int _do_b64_code(const void *in, int inlen, text_ptr &out, bool encode);

/// AES-128-CBC with a zero initialisation vector and no padding of the cipher's own: the input is filled up
/// with zero bytes to whole blocks, and decryption strips nothing. `key` is aes_key_size bytes. `enc`
/// encrypts. `out` receives the result and one zero byte. Returns the length, also stored in `outlen`, or -1
/// with `out` empty.
int _do_aes_cbc_crypt(const void *in, int inlen, text_ptr &out, int &outlen, const unsigned char *key,
                      bool enc);

/// AES-128-ECB with PKCS#7 padding; otherwise as above. A decrypted text is terminated.
int _do_aes_ecb_crypt(const void *in, int inlen, text_ptr &out, int &outlen, const unsigned char *key,
                      bool enc);

/// Encrypts with the RSA public key of a PEM text (SubjectPublicKeyInfo): the input is filled up to whole
/// blocks of the modulus length k with bytes of value k - inlen mod k (a whole block when nothing is
/// missing), and each block is encrypted without padding. Returns the length, or 0 with `out` untouched.
int _do_rsa_encrypt(const void *in, int inlen, bytes_ptr &out, const char *pem);

using bignum_ptr = handle<BIGNUM, &BN_clear_free>;

/// One side's Diffie-Hellman parameters and private value.
struct dh_object {
    bignum_ptr p, g, private_value;
};

/// The state of one exchange. The texts are base64 of big-endian magnitudes without leading zero bytes.
struct dh_key {
    std::unique_ptr<dh_object> dh;
    text_ptr p;           ///< prime
    text_ptr g;           ///< generator
    text_ptr client_pub;  ///< public value of the side that chose the parameters
    text_ptr server_pub;  ///< public value of the other side
    bytes_ptr aes_key;    ///< shared secret; its first aes_key_size bytes are the key. Null until computed.
};

/// Releases every field. Safe on a cleared record.
void free_dh_key(dh_key &key);

/// Chooses fresh 128-bit parameters and a key pair: fills dh, p, g and client_pub after clearing the record.
void gen_client_dh_key(dh_key &key);

/// Computes aes_key from server_pub. A shared number with leading zero bytes gives a shorter secret, which is
/// logged and used left-aligned in the zero-filled key. A server_pub that does not decode leaves aes_key as
/// it was; one that is no public value of the group leaves an all-zero key, logged with length -1.
void gen_client_dh_aes_key(dh_key &key);

/// The other side: takes p, g and client_pub, fills dh, aes_key and server_pub.
void gen_server_dh_aes_key(dh_key &key);

}  // namespace arvok
