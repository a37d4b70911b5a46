// Diffie-Hellman on plain big numbers: the group is 128 bits, so that the shared secret is the AES key as it
// stands, and the crypto library's own DH calls refuse a group that small.

#include <openssl/bn.h>

extern "C" {
#include <qzcap.h>
}

#include "common/crypto.h"
#include "common/text.h"
#include "utask/log.h"

namespace arvok {
namespace {

using bn_ctx = handle<BN_CTX, &BN_CTX_free>;

constexpr int prime_bits = 128;
constexpr BN_ULONG generator = 2;

// For generator 2 the safe prime is 23 modulo 24, which makes 2 generate the subgroup of prime order.
bool choose_parameters(dh_object &dh) {
    const bignum_ptr add(BN_new()), rem(BN_new());
    return add && rem && BN_set_word(add.get(), 24) && BN_set_word(rem.get(), 23) &&
           BN_generate_prime_ex(dh.p.get(), prime_bits, 1, add.get(), rem.get(), nullptr) &&
           BN_set_word(dh.g.get(), generator);
}

// Chooses the private value and returns the public one; null on failure.
bignum_ptr choose_key_pair(dh_object &dh) {
    const bn_ctx ctx(BN_CTX_new());
    const int bits = BN_num_bits(dh.p.get()) - 1;
    bignum_ptr public_value(BN_new());
    dh.private_value.reset(BN_new());
    if (!ctx || !public_value || !dh.private_value || bits < 1 ||
        !BN_priv_rand(dh.private_value.get(), bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) ||
        !BN_mod_exp(public_value.get(), dh.g.get(), dh.private_value.get(), dh.p.get(), ctx.get()))
        return nullptr;
    return public_value;
}

text_ptr to_base64(const BIGNUM *n) {
    const int len = BN_num_bytes(n);
    bytes_ptr bytes(
        static_cast<unsigned char *>(ucalloc(static_cast<std::size_t>(len) + 1, "dh.cpp", __LINE__)));
    BN_bn2bin(n, bytes.get());
    text_ptr text;
    _do_b64_code(bytes.get(), len, text, true);
    return text;
}

// The bytes of a base64 text; less than 1 when the text is missing, empty or no base64.
int decode(const char *text, text_ptr &bytes) {
    return text ? _do_b64_code(text, _strlen(text), bytes, false) : -1;
}

bignum_ptr to_number(const text_ptr &bytes, int len) {
    return bignum_ptr(BN_bin2bn(reinterpret_cast<const unsigned char *>(bytes.get()), len, nullptr));
}

bignum_ptr from_base64(const text_ptr &text) {
    text_ptr bytes;
    const int len = decode(text.get(), bytes);
    return len < 1 ? nullptr : to_number(bytes, len);
}

// A peer's public value must lie strictly between 1 and p - 1: the others put the secret into everybody's
// hands.
bool is_usable(const BIGNUM *peer, const BIGNUM *p) {
    const bignum_ptr top(BN_dup(p));
    return top && BN_sub_word(top.get(), 1) && BN_cmp(peer, BN_value_one()) > 0 &&
           BN_cmp(peer, top.get()) < 0;
}

// Length of the shared number written to `secret`, or -1.
int compute_secret(const dh_object &dh, const BIGNUM *peer, unsigned char *secret) {
    const bn_ctx ctx(BN_CTX_new());
    const bignum_ptr shared(BN_new());
    if (!ctx || !shared || !is_usable(peer, dh.p.get()) ||
        !BN_mod_exp(shared.get(), peer, dh.private_value.get(), dh.p.get(), ctx.get()))
        return -1;
    return BN_bn2bin(shared.get(), secret);
}

// The key is used with aes_key_size bytes whatever a peer's prime is, so it never gets fewer.
void derive_key(dh_key &key, const BIGNUM *peer, const char *function) {
    const int p_size = BN_num_bytes(key.dh->p.get());
    const int size = p_size > aes_key_size ? p_size : aes_key_size;
    key.aes_key.reset(
        static_cast<unsigned char *>(ucalloc(static_cast<std::size_t>(size), "dh.cpp", __LINE__)));
    const int len = compute_secret(*key.dh, peer, key.aes_key.get());
    if (len != aes_key_size)
        qzcap_printf("[ERROR] %s aes key len invalid: %d\n", function, len);
}

}  // namespace

void free_dh_key(dh_key &key) {
    key = dh_key{};
}

void gen_client_dh_key(dh_key &key) {
    static constexpr char self[] = "gen_client_dh_key";
    free_dh_key(key);
    key.dh = std::make_unique<dh_object>(dh_object{bignum_ptr(BN_new()), bignum_ptr(BN_new()), nullptr});
    if (!key.dh->p || !key.dh->g) {
        qzcap_printf("[ERROR] %s new failed\n", self);
        return;
    }
    if (!choose_parameters(*key.dh)) {
        qzcap_printf("[ERROR] %s generate parameters failed\n", self);
        return;
    }
    const bignum_ptr public_value = choose_key_pair(*key.dh);
    if (!public_value) {
        qzcap_printf("[ERROR] %s generate key failed\n", self);
        return;
    }
    key.p = to_base64(key.dh->p.get());
    key.g = to_base64(key.dh->g.get());
    key.client_pub = to_base64(public_value.get());
}

void gen_client_dh_aes_key(dh_key &key) {
    static constexpr char self[] = "gen_client_dh_aes_key";
    text_ptr bytes;
    const int len = decode(key.server_pub.get(), bytes);
    if (len < 1) {
        qzcap_printf("[ERROR] %s base64 encode failed\n", self);
        return;
    }
    const bignum_ptr peer = to_number(bytes, len);
    if (!peer || !key.dh || !key.dh->private_value) {
        qzcap_printf("[ERROR] %s bin2bn failed\n", self);
        return;
    }
    derive_key(key, peer.get(), self);
}

void gen_server_dh_aes_key(dh_key &key) {
    static constexpr char self[] = "gen_server_dh_aes_key";
    auto dh = std::make_unique<dh_object>();
    dh->p = from_base64(key.p);
    dh->g = from_base64(key.g);
    const bignum_ptr peer = from_base64(key.client_pub);
    if (!dh->p || !dh->g || !peer) {
        qzcap_printf("[ERROR] %s base64 decode failed\n", self);
        return;
    }
    key.dh = std::move(dh);
    const bignum_ptr public_value = choose_key_pair(*key.dh);
    if (!public_value) {
        qzcap_printf("[ERROR] %s generate key failed\n", self);
        return;
    }
    derive_key(key, peer.get(), self);
    key.server_pub = to_base64(public_value.get());
}

}  // namespace arvok
