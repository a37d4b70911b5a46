#include "common/crypto.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstring>
#include <vector>

extern "C" {
#include <libubox/utils.h>
#include <qzcap.h>
}

#include "utask/log.h"

namespace arvok {
namespace {

using cipher_ctx = handle<EVP_CIPHER_CTX, &EVP_CIPHER_CTX_free>;
using pkey_ptr = handle<EVP_PKEY, &EVP_PKEY_free>;
using pkey_ctx = handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
using bio_ptr = handle<BIO, &BIO_free>;

template <typename Owner>
Owner zeroed(int size) {
    return Owner(static_cast<typename Owner::pointer>(
        ucalloc(static_cast<std::size_t>(size), "crypto.cpp", __LINE__)));
}

// From 3.0 on the library looks a cipher up by its name whenever one is used, which costs more than the
// encryption of a short message: so that is done once.
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
using cipher_ptr = handle<EVP_CIPHER, &EVP_CIPHER_free>;

const EVP_CIPHER *aes_128_cbc() {
    static const cipher_ptr cipher(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr));
    return cipher.get();
}

const EVP_CIPHER *aes_128_ecb() {
    static const cipher_ptr cipher(EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr));
    return cipher.get();
}
#else
const EVP_CIPHER *aes_128_cbc() {
    return EVP_aes_128_cbc();
}

const EVP_CIPHER *aes_128_ecb() {
    return EVP_aes_128_ecb();
}
#endif

struct aes_mode {
    const char *function;  // what its log lines call it
    const EVP_CIPHER *cipher;
    bool pkcs7;
};

// Runs the cipher over `len` bytes into `out`, which has room for one block more with padding on. Returns the
// bytes written, or -1 after one log line.
int crypt(const aes_mode &mode, const void *in, int len, char *out, const unsigned char *key, bool enc) {
    static constexpr unsigned char zero_iv[aes_key_size] = {};
    const char *word = enc ? "encrypt" : "decrypt";
    const cipher_ctx ctx(EVP_CIPHER_CTX_new());
    if (!ctx || !EVP_CipherInit_ex(ctx.get(), mode.cipher, nullptr, key, zero_iv, enc))
        return -1;
    EVP_CIPHER_CTX_set_padding(ctx.get(), mode.pkcs7);

    auto *dst = reinterpret_cast<unsigned char *>(out);
    int updated = 0, final = 0;
    if (!EVP_CipherUpdate(ctx.get(), dst, &updated, static_cast<const unsigned char *>(in), len)) {
        qzcap_printf("[ERROR] %s %s failed: EVP_CipherUpdate\n", mode.function, word);
        return -1;
    }
    if (!EVP_CipherFinal_ex(ctx.get(), dst + updated, &final)) {
        qzcap_printf("[ERROR] %s %s failed: EVP_CipherFinal_ex, tmplen %d\n", mode.function, word, final);
        return -1;
    }
    return updated + final;
}

int round_up_to_block(int len) {
    return (len + aes_key_size - 1) / aes_key_size * aes_key_size;
}

}  // namespace

int _do_b64_code(const void *in, int inlen, text_ptr &out, bool encode) {
    if (encode) {
        const int size = (inlen + 2) / 3 * 4 + 1;
        out = zeroed<text_ptr>(size);
        return b64_encode(in, static_cast<std::size_t>(inlen), out.get(), static_cast<std::size_t>(size));
    }
    const int size = inlen / 4 * 3 + 1;
    out = zeroed<text_ptr>(size);
    return b64_decode(static_cast<const char *>(in), out.get(), static_cast<std::size_t>(size));
}

int _do_aes_cbc_crypt(const void *in, int inlen, text_ptr &out, int &outlen, const unsigned char *key,
                      bool enc) {
    const aes_mode mode{"_do_aes_cbc_crypt", aes_128_cbc(), false};
    const int len = round_up_to_block(inlen);
    const text_ptr padded = zeroed<text_ptr>(len + 1);
    text_ptr result = zeroed<text_ptr>(len + 1);
    std::memcpy(padded.get(), in, static_cast<std::size_t>(inlen));
    if (crypt(mode, padded.get(), len, result.get(), key, enc) < 0)
        return -1;
    out = std::move(result);
    return outlen = len;
}

int _do_aes_ecb_crypt(const void *in, int inlen, text_ptr &out, int &outlen, const unsigned char *key,
                      bool enc) {
    const aes_mode mode{"_do_aes_ecb_crypt", aes_128_ecb(), true};
    text_ptr result = zeroed<text_ptr>(inlen + aes_key_size - inlen % aes_key_size + 1);
    const int len = crypt(mode, in, inlen, result.get(), key, enc);
    if (len < 0)
        return -1;
    if (!enc)
        result.get()[len] = '\0';  // the padding was written there before the final step took it off
    out = std::move(result);
    return outlen = len;
}

int _do_rsa_encrypt(const void *in, int inlen, bytes_ptr &out, const char *pem) {
    const bio_ptr bio(BIO_new_mem_buf(pem, -1));
    if (!bio) {
        qzcap_printf("[ERROR] failed to create key BIO\n");
        return 0;
    }
    const pkey_ptr key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA || EVP_PKEY_size(key.get()) <= 0) {
        qzcap_printf("[ERROR] failed to get rsa :\n%s\n", pem);
        return 0;
    }

    const int k = EVP_PKEY_size(key.get());
    const int total = (inlen / k + 1) * k;
    std::vector<unsigned char> plain(static_cast<std::size_t>(total),
                                     static_cast<unsigned char>(k - inlen % k));
    std::memcpy(plain.data(), in, static_cast<std::size_t>(inlen));

    bytes_ptr result = zeroed<bytes_ptr>(total);
    for (int at = 0; at < total; at += k) {
        // A block that is not below the modulus cannot be encrypted; its bytes stay zero.
        const pkey_ctx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
        std::size_t len = static_cast<std::size_t>(k);
        if (ctx && EVP_PKEY_encrypt_init(ctx.get()) > 0 &&
            EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) > 0)
            EVP_PKEY_encrypt(ctx.get(), result.get() + at, &len, plain.data() + at,
                             static_cast<std::size_t>(k));
    }
    out = std::move(result);
    return total;
}

}  // namespace arvok
