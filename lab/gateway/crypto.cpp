#include "crypto.h"

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "release.h"

namespace arvok::lab {
namespace {

using bignum_ptr = std::unique_ptr<BIGNUM, Releaser<BN_clear_free>>;
using bn_ctx_ptr = std::unique_ptr<BN_CTX, Releaser<BN_CTX_free>>;
using cipher_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, Releaser<EVP_CIPHER_CTX_free>>;

// The link agrees 128-bit numbers. A larger group is answered too, up to where an exponentiation would hold
// the loop.
constexpr int max_group_bits = 2048;
constexpr int min_group_bits = 16;

std::vector<unsigned char> bytes_of(const BIGNUM *number) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

std::string to_base64(const std::vector<unsigned char> &bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

bignum_ptr from_base64(const char *text) {
    const std::size_t length = std::strlen(text);
    if (length == 0 || length % 4 != 0)
        return nullptr;
    std::vector<unsigned char> bytes(length / 4 * 3);
    const int decoded = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char *>(text),
                                        static_cast<int>(length));
    // The block decoder counts the bytes that stand for '=' as data.
    const auto padding = static_cast<int>((text[length - 1] == '=') + (text[length - 2] == '='));
    if (decoded <= padding)
        return nullptr;
    return bignum_ptr(BN_bin2bn(bytes.data(), decoded - padding, nullptr));
}

// 1 < value < p - 1: the other values betray the shared number.
bool in_group(const BIGNUM *value, const BIGNUM *p) {
    bignum_ptr limit(BN_dup(p));
    return limit && BN_sub_word(limit.get(), 1) && BN_cmp(value, BN_value_one()) > 0 &&
           BN_cmp(value, limit.get()) < 0;
}

std::optional<std::string> run_cipher(const LinkKey &key, std::string_view in, bool encrypting) {
    const unsigned char iv[16] = {};
    cipher_ctx_ptr ctx(EVP_CIPHER_CTX_new());
    std::string out(in.size() + sizeof iv, '\0');
    int length = 0;
    if (!ctx ||
        EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(), iv, encrypting ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_CipherUpdate(ctx.get(), reinterpret_cast<unsigned char *>(out.data()), &length,
                         reinterpret_cast<const unsigned char *>(in.data()),
                         static_cast<int>(in.size())) != 1)
        return std::nullopt;
    out.resize(static_cast<std::size_t>(length));
    return out;
}

}  // namespace

std::optional<DhAnswer> answer_dh(const char *p_text, const char *g_text, const char *public_text,
                                  std::string &error) {
    bignum_ptr p = from_base64(p_text), g = from_base64(g_text), theirs = from_base64(public_text);
    if (!p || !g || !theirs) {
        error = "a value is no base64";
        return std::nullopt;
    }
    if (BN_num_bits(p.get()) < min_group_bits || BN_num_bits(p.get()) > max_group_bits ||
        !BN_is_odd(p.get())) {
        error = "dh_p is no usable prime";
        return std::nullopt;
    }
    if (!in_group(g.get(), p.get()) || !in_group(theirs.get(), p.get())) {
        error = "dh_g or dh_key lies outside of the group";
        return std::nullopt;
    }

    bn_ctx_ptr ctx(BN_CTX_new());
    bignum_ptr secret(BN_new()), ours(BN_new()), shared(BN_new());
    if (!ctx || !secret || !ours || !shared ||
        !BN_rand(secret.get(), BN_num_bits(p.get()) - 1, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) ||
        !BN_mod_exp(ours.get(), g.get(), secret.get(), p.get(), ctx.get()) ||
        !BN_mod_exp(shared.get(), theirs.get(), secret.get(), p.get(), ctx.get())) {
        error = "the arithmetic failed";
        return std::nullopt;
    }

    DhAnswer answer;
    answer.public_value = to_base64(bytes_of(ours.get()));
    const std::vector<unsigned char> bytes = bytes_of(shared.get());
    answer.secret_bytes = bytes.size();
    std::copy_n(bytes.begin(), std::min(bytes.size(), answer.key.size()), answer.key.begin());
    return answer;
}

std::optional<std::string> encrypt(const LinkKey &key, std::string_view plain) {
    std::string padded(plain);
    padded.resize((plain.size() + 15) / 16 * 16, '\0');
    return run_cipher(key, padded, true);
}

std::optional<std::string> decrypt(const LinkKey &key, std::string_view sealed) {
    if (sealed.size() % 16 != 0)
        return std::nullopt;
    return run_cipher(key, sealed, false);
}

}  // namespace arvok::lab
