#include "crypto.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdlib>

namespace arvok::lab {
namespace {

using bio_ptr = std::unique_ptr<BIO, Releaser<BIO_free>>;
using key_ctx_ptr = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;
using cipher_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, Releaser<EVP_CIPHER_CTX_free>>;

const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}

// Takes the filling off a decrypted text: of the counts that its last byte can stand for, the largest that
// fits.
std::optional<std::string> without_filling(std::string text, std::size_t block) {
    const auto filling = static_cast<unsigned char>(text.back());
    std::size_t same = 0;
    while (same < std::min(block, text.size()) &&
           static_cast<unsigned char>(text[text.size() - 1 - same]) == filling)
        same++;
    std::size_t count = 0;
    for (std::size_t fits = filling ? filling : 256; fits <= same; fits += 256)
        count = fits;
    if (count == 0)
        return std::nullopt;
    text.resize(text.size() - count);
    return text;
}

std::optional<std::string> run_cipher(std::string_view key, std::string_view in, bool encrypting) {
    cipher_ctx_ptr ctx(EVP_CIPHER_CTX_new());
    std::string out(in.size() + aes_key_size, '\0');
    auto *at = reinterpret_cast<unsigned char *>(out.data());
    int length = 0, last = 0;
    if (key.size() != aes_key_size || !ctx ||
        EVP_CipherInit_ex(ctx.get(), EVP_aes_128_ecb(), nullptr, bytes_of(key), nullptr, encrypting) != 1 ||
        EVP_CipherUpdate(ctx.get(), at, &length, bytes_of(in), static_cast<int>(in.size())) != 1 ||
        EVP_CipherFinal_ex(ctx.get(), at + length, &last) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    out.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
    return out;
}

}  // namespace

std::optional<PlatformKey> PlatformKey::read(std::string_view pem) {
    const bio_ptr text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    // An encrypted key would ask the terminal for its pass phrase; an empty one answers for it.
    char no_phrase[] = "";
    PlatformKey key(text ? PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, no_phrase) : nullptr);
    ERR_clear_error();
    if (!key.key_ || EVP_PKEY_base_id(key.key_.get()) != EVP_PKEY_RSA)
        return std::nullopt;
    return key;
}

std::optional<std::string> PlatformKey::decrypt(std::string_view sealed) const {
    const auto block = static_cast<std::size_t>(EVP_PKEY_size(key_.get()));
    if (sealed.empty() || sealed.size() % block != 0)
        return std::nullopt;
    const key_ctx_ptr ctx(EVP_PKEY_CTX_new(key_.get(), nullptr));
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1)
        return std::nullopt;
    std::string text(sealed.size(), '\0');
    for (std::size_t at = 0; at < sealed.size(); at += block) {
        std::size_t length = block;
        if (EVP_PKEY_decrypt(ctx.get(), reinterpret_cast<unsigned char *>(text.data()) + at, &length,
                             bytes_of(sealed) + at, block) != 1 ||
            length != block) {
            ERR_clear_error();
            return std::nullopt;
        }
    }
    return without_filling(std::move(text), block);
}

std::optional<std::string> encrypt(std::string_view key, std::string_view plain) {
    return run_cipher(key, plain, true);
}

std::optional<std::string> decrypt(std::string_view key, std::string_view sealed) {
    return run_cipher(key, sealed, false);
}

std::string random_text(std::size_t length) {
    static constexpr std::string_view letters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string text(length, '\0');
    // Without random numbers there is no platform.
    if (RAND_bytes(reinterpret_cast<unsigned char *>(text.data()), static_cast<int>(length)) != 1)
        std::abort();
    for (char &letter : text)
        letter = letters[static_cast<unsigned char>(letter) % letters.size()];
    return text;
}

}  // namespace arvok::lab
