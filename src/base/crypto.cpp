#include "base/crypto.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <utility>

#include "base/log.h"

namespace arvok {
namespace {

using pkey_context = handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
using bio = handle<BIO, &BIO_free>;

constexpr unsigned char zero_vector[aes_key_size] = {};
constexpr std::size_t block_size = aes_key_size;

unsigned char *bytes_of(std::string &text) {
    return reinterpret_cast<unsigned char *>(text.data());
}

const char *name_of(aes_mode mode) {
    return mode == aes_mode::cbc ? "_do_aes_cbc_crypt" : "_do_aes_ecb_crypt";
}

}  // namespace

aes_key aes_key_of(std::string_view bytes) {
    aes_key key{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), key.size()), key.begin());
    return key;
}

aes::aes(aes_mode mode, const aes_key &key)
    : mode_(mode), encryption_{make(key, true)}, decryption_{make(key, false)} {}

// Blocks are chained by adding the one before to each; adding it once more takes it out.
void aes::take_out(unsigned char *first, const block &before) const {
    if (mode_ == aes_mode::cbc)
        for (std::size_t i = 0; i < block_size; i++)
            first[i] ^= before[i];
}

aes::context aes::make(const aes_key &key, bool encrypt) const {
    const EVP_CIPHER *cipher = mode_ == aes_mode::cbc ? EVP_aes_128_cbc() : EVP_aes_128_ecb();
    context made(EVP_CIPHER_CTX_new());
    if (!made || !EVP_CipherInit_ex(made.get(), cipher, nullptr, key.data(), zero_vector, encrypt))
        return nullptr;
    EVP_CIPHER_CTX_set_padding(made.get(), 0);
    return made;
}

bool aes::encrypt(std::string &text, std::size_t begin) {
    const std::size_t missing = block_size - (text.size() - begin) % block_size;
    if (mode_ == aes_mode::ecb)
        text.append(missing, static_cast<char>(missing));
    else if (missing < block_size)
        text.append(missing, '\0');
    const std::size_t size = text.size() - begin;
    if (size == 0)
        return true;
    unsigned char *blocks = bytes_of(text) + begin;
    take_out(blocks, encryption_.chained);
    if (!run(encryption_, blocks, size, "encrypt"))
        return false;
    std::copy_n(blocks + size - block_size, block_size, encryption_.chained.begin());
    return true;
}

bool aes::decrypt(std::string &text) {
    if (mode_ == aes_mode::cbc)
        text.resize((text.size() + block_size - 1) / block_size * block_size, '\0');
    const std::size_t size = text.size() / block_size * block_size;
    if (size > 0) {
        unsigned char *blocks = bytes_of(text);
        block last;
        std::copy_n(blocks + size - block_size, block_size, last.begin());
        if (!run(decryption_, blocks, size, "decrypt"))
            return false;
        take_out(blocks, std::exchange(decryption_.chained, last));
    }
    return mode_ == aes_mode::cbc || remove_filling(text);
}

bool aes::run(direction &which, unsigned char *blocks, std::size_t size, const char *word) const {
    int updated = 0;
    if (which.keyed && EVP_CipherUpdate(which.keyed.get(), blocks, &updated, blocks, static_cast<int>(size)))
        return true;
    log_printf("[ERROR] %s %s failed: EVP_CipherUpdate\n", name_of(mode_), word);
    return false;
}

// Takes the bytes off that filled the last block of a text; each of them says how many there are.
bool aes::remove_filling(std::string &text) const {
    const std::size_t count = text.empty() ? 0 : static_cast<unsigned char>(text.back());
    if (text.size() % block_size == 0 && count >= 1 && count <= block_size &&
        std::all_of(text.end() - static_cast<std::ptrdiff_t>(count), text.end(),
                    [&text](char c) { return c == text.back(); })) {
        text.resize(text.size() - count);
        return true;
    }
    log_printf("[ERROR] %s decrypt failed: EVP_CipherFinal_ex, tmplen %d\n", name_of(mode_), 0);
    return false;
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
