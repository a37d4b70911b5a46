#include "base/crypto.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>

extern "C" {
#include <libubox/utils.h>
}

#include "base/log.h"

namespace arvok {
namespace {

using pkey_context = handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
using bio = handle<BIO, &BIO_free>;

constexpr unsigned char zero_vector[aes_key_size] = {};

const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}

unsigned char *bytes_of(std::string &text) {
    return reinterpret_cast<unsigned char *>(text.data());
}

const char *name_of(aes_mode mode) {
    return mode == aes_mode::cbc ? "_do_aes_cbc_crypt" : "_do_aes_ecb_crypt";
}

}  // namespace

std::string base64_encode(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length = b64_encode(bytes.data(), bytes.size(), text.data(), text.size());
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
}

std::optional<std::string> base64_decode(std::string_view text) {
    const std::string terminated(text);
    std::string bytes(text.size() / 4 * 3 + 1, '\0');
    const int length = b64_decode(terminated.c_str(), bytes.data(), bytes.size());
    if (length < 0)
        return std::nullopt;
    bytes.resize(static_cast<std::size_t>(length));
    return bytes;
}

aes_key aes_key_of(std::string_view bytes) {
    aes_key key{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), key.size()), key.begin());
    return key;
}

aes::aes(aes_mode mode, const aes_key &key)
    : mode_(mode), encryption_(make(key, true)), decryption_(make(key, false)) {}

aes::context aes::make(const aes_key &key, bool encrypt) const {
    const EVP_CIPHER *cipher = mode_ == aes_mode::cbc ? EVP_aes_128_cbc() : EVP_aes_128_ecb();
    context made(EVP_CIPHER_CTX_new());
    if (!made || !EVP_CipherInit_ex(made.get(), cipher, nullptr, key.data(), zero_vector, encrypt))
        return nullptr;
    EVP_CIPHER_CTX_set_padding(made.get(), mode_ == aes_mode::ecb);
    return made;
}

std::optional<std::string> aes::encrypt(std::string_view plain) {
    return run(encryption_.get(), plain, "encrypt");
}

std::optional<std::string> aes::decrypt(std::string_view cipher) {
    return run(decryption_.get(), cipher, "decrypt");
}

std::optional<std::string> aes::run(EVP_CIPHER_CTX *keyed, std::string_view in, const char *word) {
    // The key stays; what the last message left behind goes.
    if (!keyed || !EVP_CipherInit_ex(keyed, nullptr, nullptr, nullptr, zero_vector, -1))
        return std::nullopt;
    std::string filled;
    if (mode_ == aes_mode::cbc && in.size() % aes_key_size != 0) {
        filled = in;
        filled.resize((in.size() / aes_key_size + 1) * aes_key_size, '\0');
        in = filled;
    }
    std::string out(in.size() + aes_key_size, '\0');
    int updated = 0, final = 0;
    if (!EVP_CipherUpdate(keyed, bytes_of(out), &updated, bytes_of(in), static_cast<int>(in.size()))) {
        log_printf("[ERROR] %s %s failed: EVP_CipherUpdate\n", name_of(mode_), word);
        return std::nullopt;
    }
    if (!EVP_CipherFinal_ex(keyed, bytes_of(out) + updated, &final)) {
        log_printf("[ERROR] %s %s failed: EVP_CipherFinal_ex, tmplen %d\n", name_of(mode_), word, final);
        return std::nullopt;
    }
    out.resize(static_cast<std::size_t>(updated) + static_cast<std::size_t>(final));
    return out;
}

bool rsa_public_key::read() {
    const bio memory(BIO_new_mem_buf(pem_.data(), static_cast<int>(pem_.size())));
    if (!memory) {
        log_printf("[ERROR] failed to create key BIO\n");
        return false;
    }
    key_.reset(PEM_read_bio_PUBKEY(memory.get(), nullptr, nullptr, nullptr));
    if (key_ && EVP_PKEY_base_id(key_.get()) == EVP_PKEY_RSA && EVP_PKEY_size(key_.get()) > 0)
        return true;
    key_.reset();
    log_printf("[ERROR] failed to get rsa :\n");
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        end = pem_.find('\n', at);
        log_printf("%s\n", pem_.substr(at, end - at).c_str());
    }
    return false;
}

std::string rsa_public_key::encrypt(std::string_view plain) {
    if (!key_ && !read())
        return {};
    const auto block = static_cast<std::size_t>(EVP_PKEY_size(key_.get()));
    std::string filled(plain);
    filled.append(block - plain.size() % block, static_cast<char>(block - plain.size() % block));
    std::string cipher(filled.size(), '\0');
    for (std::size_t at = 0; at < filled.size(); at += block) {
        const pkey_context context(EVP_PKEY_CTX_new(key_.get(), nullptr));
        std::size_t length = block;
        if (context && EVP_PKEY_encrypt_init(context.get()) > 0 &&
            EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) > 0)
            EVP_PKEY_encrypt(context.get(), bytes_of(cipher) + at, &length, bytes_of(filled) + at, block);
    }
    return cipher;
}

}  // namespace arvok
