// Lengths, paddings and byte layouts, against published vectors and the crypto library's own primitives.

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <string>
#include <vector>

#include "base/base64.h"
#include "base/crypto.h"
#include "base/key_exchange.h"
#include "base/text.h"

namespace arvok {
namespace {

const unsigned char *bytes_of(const std::string &text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}
unsigned char *bytes_of(std::string &text) {
    return reinterpret_cast<unsigned char *>(text.data());
}

TEST(Base64, CodesAndRefuses) {
    const struct {
        std::string bytes, text;
    } cases[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {std::string("\0\xff", 2), "AP8="},
                 {"fooba", "Zm9vYmE="}};
    for (const auto &c : cases) {
        EXPECT_EQ(base64_encode(c.bytes), c.text);
        EXPECT_EQ(base64_decode(c.text), c.bytes);
    }
    EXPECT_EQ(base64_decode("Zm9v\nYm\tE="), "fooba");
    EXPECT_EQ(base64_decode(std::string_view("Zm9vYmE=", 4)), "foo");
    for (const char *bad : {"ZGQw!", "ZGQwNQ=", "ZGQ", "?"})
        EXPECT_EQ(base64_decode(bad), std::nullopt) << bad;
}

std::string openssl_aes(const EVP_CIPHER *cipher, const std::string &key, bool pad, const std::string &in) {
    const handle<EVP_CIPHER_CTX, &EVP_CIPHER_CTX_free> ctx(EVP_CIPHER_CTX_new());
    const unsigned char zeros[16] = {};
    std::string out(in.size() + 16, '\0');
    int length = 0, last = 0;
    EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, bytes_of(key), zeros);
    EVP_CIPHER_CTX_set_padding(ctx.get(), pad);
    EVP_EncryptUpdate(ctx.get(), bytes_of(out), &length, bytes_of(in), static_cast<int>(in.size()));
    EVP_EncryptFinal_ex(ctx.get(), bytes_of(out) + length, &last);
    out.resize(static_cast<std::size_t>(length + last));
    return out;
}

// One key for all messages: none must leave anything to the next.
TEST(Aes, EveryLengthInBothModes) {
    const std::string key = "0123456789abcdef";
    aes cbc(aes_mode::cbc, aes_key_of(key + "cut")), ecb(aes_mode::ecb, aes_key_of(key));
    for (const std::size_t size : {0, 1, 15, 16, 17, 31, 1000, 16384}) {
        std::string plain;
        while (plain.size() < size)
            plain += static_cast<char>(plain.size() * 7 + plain.size() / 256);
        const std::string filled = plain + std::string((16 - size % 16) % 16, '\0');
        std::string by_cbc = "head" + plain, by_ecb = plain;
        EXPECT_TRUE(cbc.encrypt(by_cbc, 4));
        EXPECT_EQ(by_cbc, "head" + openssl_aes(EVP_aes_128_cbc(), key, false, filled)) << size;
        by_cbc.erase(0, 4);
        EXPECT_TRUE(cbc.decrypt(by_cbc));
        EXPECT_EQ(by_cbc, filled) << size;
        EXPECT_TRUE(ecb.encrypt(by_ecb));
        EXPECT_EQ(by_ecb, openssl_aes(EVP_aes_128_ecb(), key, true, plain)) << size;
        EXPECT_TRUE(ecb.decrypt(by_ecb));
        EXPECT_EQ(by_ecb, plain) << size;
    }
    ::testing::internal::CaptureStderr();
    // No whole block, and no right filling of the last: none, too long, not all the same.
    std::string bad[] = {"0123456789abcde",       "",
                         "0123456789abcdef",      std::string(15, 'x') + '\0',
                         std::string(16, '\x11'), std::string(14, 'x') + "\x01\x02"};
    for (std::size_t i = 2; i < std::size(bad); i++)
        bad[i] = openssl_aes(EVP_aes_128_ecb(), key, false, bad[i]);
    for (std::string &cipher : bad)
        EXPECT_FALSE(ecb.decrypt(cipher));
    EXPECT_TRUE(contains(::testing::internal::GetCapturedStderr(),
                         "[ERROR] _do_aes_ecb_crypt decrypt failed: EVP_CipherFinal_ex, tmplen 0\n"));
    std::string whole = "after a failure";
    EXPECT_TRUE(ecb.encrypt(whole) && ecb.decrypt(whole));
    EXPECT_EQ(whole, "after a failure");
    EXPECT_EQ(aes_key_of("ab"), (aes_key{'a', 'b'}));
}

// An elliptic-curve key.
constexpr char other_kind_of_key[] =
    "-----BEGIN PUBLIC KEY-----\n"
    "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEKrBAR/E049UIx+3N2wE840wyejkb\n"
    "K5W1L8HHueH+RxJOBP7NdzgtvVqge6I0Legw9+UAxAFGqzDqLreX7zekzw==\n"
    "-----END PUBLIC KEY-----\n";

TEST(Rsa, FillsUpToWholeBlocksOfTheModulus) {
    using context = handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
    for (const std::size_t k : {128, 256}) {
        const context making(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
        EVP_PKEY *made = nullptr;
        ASSERT_TRUE(EVP_PKEY_keygen_init(making.get()) > 0 &&
                    EVP_PKEY_CTX_set_rsa_keygen_bits(making.get(), static_cast<int>(k * 8)) > 0 &&
                    EVP_PKEY_keygen(making.get(), &made) > 0);
        const handle<EVP_PKEY, &EVP_PKEY_free> pair(made);
        const handle<BIO, &BIO_free> memory(BIO_new(BIO_s_mem()));
        ASSERT_TRUE(PEM_write_bio_PUBKEY(memory.get(), made));
        char *pem;
        const long pem_size = BIO_get_mem_data(memory.get(), &pem);
        rsa_public_key key(std::string(pem, static_cast<std::size_t>(pem_size)));

        for (const std::size_t size : {std::size_t{10}, k - 1, k, k + 3}) {
            const std::string plain(size, '\x01'), cipher = key.encrypt(plain);
            const std::size_t missing = k - size % k;
            ASSERT_EQ(cipher.size(), size + missing);
            std::string back(cipher.size(), '\0');
            for (std::size_t at = 0; at < cipher.size(); at += k) {
                const context ctx(EVP_PKEY_CTX_new(made, nullptr));
                std::size_t length = k;
                EXPECT_TRUE(
                    EVP_PKEY_decrypt_init(ctx.get()) > 0 &&
                    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) > 0 &&
                    EVP_PKEY_decrypt(ctx.get(), bytes_of(back) + at, &length, bytes_of(cipher) + at, k) > 0);
            }
            EXPECT_EQ(back, plain + std::string(missing, static_cast<char>(missing))) << k << " " << size;
        }
        EXPECT_EQ(key.encrypt(std::string(k, '\xff')).substr(0, k), std::string(k, '\0'));
    }
    for (const char *bad : {"no key", other_kind_of_key}) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(rsa_public_key(bad).encrypt("x"), "");
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "[ERROR] failed to get rsa :\n" + std::string(bad) + "\n");
    }
}

// --- the other side of the key exchange, in plain big numbers ---

using number = handle<BIGNUM, &BN_free>;

number number_of(const std::string &base64) {
    const std::string bytes = base64_decode(base64).value_or("");
    return number(BN_bin2bn(bytes_of(bytes), static_cast<int>(bytes.size()), nullptr));
}
std::string text_of(const BIGNUM *n) {
    std::string bytes(static_cast<std::size_t>(BN_num_bytes(n)), '\0');
    BN_bn2bin(n, bytes_of(bytes));
    return base64_encode(bytes);
}
struct agreement {
    std::string key;  // nothing without one
    std::string log;
    bool refused;
};
agreement agree(key_exchange &exchange, const std::string &peer) {
    ::testing::internal::CaptureStderr();
    const auto [key, refused] = exchange.agree(peer);
    return {key ? std::string(key->begin(), key->end()) : "", ::testing::internal::GetCapturedStderr(),
            refused};
}

// The group is sound, and the powers of the two public values, one after the other, meet secrets of three
// lengths.
TEST(KeyExchange, SharesASecretOfAnyLengthInAGroupOfASafePrime) {
    const handle<BN_CTX, &BN_CTX_free> ctx(BN_CTX_new());
    key_exchange exchange;
    exchange.begin();
    const std::string first = exchange.prime();
    exchange.begin();
    EXPECT_NE(exchange.prime(), first);
    const number p = number_of(exchange.prime()), base = number_of(exchange.generator());
    const number own = number_of(exchange.public_value()), q(BN_new()), power(BN_new());
    EXPECT_EQ(BN_num_bits(p.get()), 128);
    EXPECT_TRUE(BN_is_word(base.get(), 2));
    BN_rshift1(q.get(), p.get());
    BN_mod_exp(power.get(), base.get(), q.get(), p.get(), ctx.get());
    EXPECT_TRUE(BN_is_one(power.get()));  // p is prime, and 2 is of the order q
    BN_mod_exp(power.get(), base.get(), q.get(), q.get(), ctx.get());
    EXPECT_TRUE(BN_is_word(power.get(), 2));  // so is q

    const number peer(BN_dup(base.get())), shared(BN_dup(own.get()));
    int length = 16;
    for (int i = 0; length > 13 && i < 2000000; i++) {
        BN_mod_mul(peer.get(), peer.get(), base.get(), p.get(), ctx.get());
        BN_mod_mul(shared.get(), shared.get(), own.get(), p.get(), ctx.get());
        if (BN_num_bytes(shared.get()) != length)
            continue;
        std::string expected(16, '\0');
        BN_bn2bin(shared.get(), bytes_of(expected));  // on the left
        const agreement seen = agree(exchange, text_of(peer.get()));
        EXPECT_EQ(seen.key, expected) << length;
        const std::string line = format("[ERROR] gen_client_dh_aes_key aes key len invalid: %d\n", length);
        EXPECT_EQ(seen.log, length-- == 16 ? "" : line);
    }
    EXPECT_EQ(length, 13);
}

TEST(KeyExchange, WhatIsNoPublicValueGivesNoSecret) {
    key_exchange exchange;
    EXPECT_EQ(agree(exchange, "Ag==").log, "[ERROR] gen_client_dh_aes_key bin2bn failed\n");
    exchange.begin();
    const number p = number_of(exchange.prime());
    for (const char *text : {"", "!!!!"}) {
        const agreement seen = agree(exchange, text);
        EXPECT_TRUE(seen.key == "" && !seen.refused);
        EXPECT_EQ(seen.log, "[ERROR] gen_client_dh_aes_key base64 encode failed\n");
    }
    std::vector<std::string> outside = {"AA==", "AQ==", base64_encode(std::string(16, '\xff')),
                                        base64_encode(std::string(1000, '\x01'))};
    BN_sub_word(p.get(), 1);
    for (int i = 0; i < 3; i++, BN_add_word(p.get(), 1))
        outside.push_back(text_of(p.get()));
    for (const std::string &text : outside) {
        const agreement seen = agree(exchange, text);
        EXPECT_TRUE(seen.key == "" && seen.refused) << text;
        EXPECT_EQ(seen.log, "[ERROR] gen_client_dh_aes_key aes key len invalid: -1\n") << text;
    }
    // The first and the last that are in.
    BN_sub_word(p.get(), 4);
    for (const std::string &text : {std::string("Ag=="), text_of(p.get())}) {
        const agreement seen = agree(exchange, text);
        EXPECT_TRUE(seen.key != "" && !seen.refused) << text;
    }
    exchange.clear();
    EXPECT_EQ(exchange.prime() + exchange.generator() + exchange.public_value(), "");
    EXPECT_EQ(agree(exchange, "Ag==").key, "");
}

}  // namespace
}  // namespace arvok
