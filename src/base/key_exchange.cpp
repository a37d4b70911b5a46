// Diffie-Hellman on plain big numbers: the crypto library's own calls refuse a group of 128 bits.

#include "base/key_exchange.h"
#include "base/base64.h"

#include "base/log.h"

namespace arvok {
namespace {

using context = handle<BN_CTX, &BN_CTX_free>;
using scratch_number = handle<BIGNUM, &BN_clear_free>;

constexpr int prime_bits = 128;
constexpr BN_ULONG chosen_generator = 2;

std::string to_base64(const BIGNUM *n) {
    std::string bytes(static_cast<std::size_t>(BN_num_bytes(n)), '\0');
    BN_bn2bin(n, reinterpret_cast<unsigned char *>(bytes.data()));
    return base64_encode(bytes);
}

// A peer's public value must lie strictly between 1 and p - 1: the others put the secret into everybody's
// hands.
bool is_usable(const BIGNUM *peer, const BIGNUM *p) {
    const scratch_number top(BN_dup(p));
    return top && BN_sub_word(top.get(), 1) && BN_cmp(peer, BN_value_one()) > 0 &&
           BN_cmp(peer, top.get()) < 0;
}

}  // namespace

void key_exchange::clear() {
    p_.reset();
    g_.reset();
    private_.reset();
    prime_.clear();
    generator_.clear();
    public_value_.clear();
}

// For generator 2 the safe prime is 23 modulo 24, which makes 2 generate the subgroup of prime order.
bool key_exchange::choose_group() {
    const scratch_number add(BN_new()), rem(BN_new());
    return add && rem && BN_set_word(add.get(), 24) && BN_set_word(rem.get(), 23) &&
           BN_generate_prime_ex(p_.get(), prime_bits, 1, add.get(), rem.get(), nullptr) &&
           BN_set_word(g_.get(), chosen_generator);
}

// Chooses the private value and returns the public one; null on failure.
key_exchange::number key_exchange::choose_key_pair() {
    const context memory(BN_CTX_new());
    number public_number(BN_new());
    private_.reset(BN_new());
    if (!memory || !public_number || !private_ ||
        !BN_priv_rand(private_.get(), BN_num_bits(p_.get()) - 1, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) ||
        !BN_mod_exp(public_number.get(), g_.get(), private_.get(), p_.get(), memory.get()))
        return nullptr;
    return public_number;
}

void key_exchange::begin() {
    clear();
    p_.reset(BN_new());
    g_.reset(BN_new());
    if (!p_ || !g_) {
        log_printf("[ERROR] gen_client_dh_key new failed\n");
        return;
    }
    if (!choose_group()) {
        log_printf("[ERROR] gen_client_dh_key generate parameters failed\n");
        return;
    }
    const number public_number = choose_key_pair();
    if (!public_number) {
        private_.reset();
        log_printf("[ERROR] gen_client_dh_key generate key failed\n");
        return;
    }
    prime_ = to_base64(p_.get());
    generator_ = to_base64(g_.get());
    public_value_ = to_base64(public_number.get());
}

// Length of the shared number written to `secret`, or -1.
int key_exchange::shared_secret(const BIGNUM *peer, aes_key &secret) const {
    const context memory(BN_CTX_new());
    const scratch_number shared(BN_new());
    if (!memory || !shared || !is_usable(peer, p_.get()) ||
        !BN_mod_exp(shared.get(), peer, private_.get(), p_.get(), memory.get()))
        return -1;
    return BN_bn2bin(shared.get(), secret.data());
}

key_exchange::agreement key_exchange::agree(std::string_view peer_public) {
    const std::optional<std::string> bytes = base64_decode(peer_public);
    if (!bytes || bytes->empty()) {
        log_printf("[ERROR] gen_client_dh_aes_key base64 encode failed\n");
        return {};
    }
    const scratch_number peer(BN_bin2bn(reinterpret_cast<const unsigned char *>(bytes->data()),
                                        static_cast<int>(bytes->size()), nullptr));
    if (!peer || !private_) {
        log_printf("[ERROR] gen_client_dh_aes_key bin2bn failed\n");
        return {};
    }
    aes_key secret{};
    const int length = shared_secret(peer.get(), secret);
    if (length != static_cast<int>(aes_key_size))
        log_printf("[ERROR] gen_client_dh_aes_key aes key len invalid: %d\n", length);
    if (length < 0)
        return {.refused = true};
    return {.key = secret};
}

}  // namespace arvok
