// Lengths, paddings and byte layouts of the crypto helpers, against published vectors and the library's own
// primitives.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstring>
#include <numeric>
#include <string>

#include "common/crypto.h"
#include "common/text.h"

namespace arvok {
namespace {

const auto *key = reinterpret_cast<const unsigned char *>("0123456789abcdef");

std::string hex(const void *bytes, int len) {
    std::string out;
    for (int i = 0; i < len; i++) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char *>(bytes)[i]);
        out += digits;
    }
    return out;
}

TEST(Base64, CodesAndRefuses) {
    text_ptr out;
    EXPECT_EQ(_do_b64_code("dd05", 4, out, true), 8);
    EXPECT_STREQ(out.get(), "ZGQwNQ==");
    EXPECT_EQ(_do_b64_code("", 0, out, true), 0);
    EXPECT_STREQ(out.get(), "");
    EXPECT_EQ(_do_b64_code("ZGQwNQ==", 8, out, false), 4);
    EXPECT_STREQ(out.get(), "dd05");
    for (const char *bad : {"ZGQw!", "ZGQwNQ=", "ZGQ"}) {
        out.reset();
        EXPECT_EQ(_do_b64_code(bad, _strlen(bad), out, false), -1) << bad;
        EXPECT_NE(out, nullptr) << bad;  // the caller's on failure too
    }
}

TEST(AesCbc, PadsWithZerosAndStripsNothing) {
    struct {
        int in, out;
    } const lengths[] = {{0, 0}, {1, 16}, {15, 16}, {16, 16}, {17, 32}, {16384, 16384}};
    for (const auto &l : lengths) {
        const std::string plain(static_cast<std::size_t>(l.in), 'x');
        text_ptr cipher, back;
        int len = -1;
        ASSERT_EQ(_do_aes_cbc_crypt(plain.data(), l.in, cipher, len, key, true), l.out);
        EXPECT_EQ(len, l.out);
        EXPECT_EQ(cipher.get()[l.out], '\0');
        ASSERT_EQ(_do_aes_cbc_crypt(cipher.get(), l.out, back, len, key, false), l.out);
        EXPECT_EQ(std::string(back.get(), static_cast<std::size_t>(l.out)),
                  plain + std::string(static_cast<std::size_t>(l.out - l.in), '\0'));
    }
}

TEST(AesCbc, MatchesThePublishedVector) {
    // FIPS-197 appendix B: one block under a zero initialisation vector is plain AES.
    const unsigned char aes[] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                 0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
    const unsigned char in[] = {0x32, 0x43, 0xf6, 0xa8, 0x88, 0x5a, 0x30, 0x8d,
                                0x31, 0x31, 0x98, 0xa2, 0xe0, 0x37, 0x07, 0x34};
    text_ptr out;
    int len;
    ASSERT_EQ(_do_aes_cbc_crypt(in, 16, out, len, aes, true), 16);
    EXPECT_EQ(hex(out.get(), 16), "3925841d02dc09fbdc118597196a0b32");
    ASSERT_EQ(_do_aes_ecb_crypt(in, 16, out, len, aes, true), 32);
    EXPECT_EQ(hex(out.get(), 16), "3925841d02dc09fbdc118597196a0b32");
}

TEST(AesEcb, PadsByPkcs7AndTerminates) {
    for (int n : {0, 1, 15, 16, 17, 1000}) {
        const std::string plain(static_cast<std::size_t>(n), 'y');
        text_ptr cipher, back;
        int len = -1;
        ASSERT_EQ(_do_aes_ecb_crypt(plain.data(), n, cipher, len, key, true), n / 16 * 16 + 16);
        ASSERT_EQ(_do_aes_ecb_crypt(cipher.get(), len, back, len, key, false), n);
        EXPECT_STREQ(back.get(), plain.c_str());
    }
}

TEST(AesEcb, RefusesWhatIsNotItsOwn) {
    ::testing::internal::CaptureStderr();
    text_ptr out;
    int len;
    EXPECT_EQ(_do_aes_ecb_crypt("0123456789abcde", 15, out, len, key, false), -1);   // no whole block
    EXPECT_EQ(_do_aes_ecb_crypt("0123456789abcdef", 16, out, len, key, false), -1);  // no padding within
    EXPECT_EQ(out, nullptr);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                  "[ERROR] _do_aes_ecb_crypt decrypt failed: EVP_CipherFinal_ex, tmplen 0\n"),
              std::string::npos);
}

// An elliptic-curve key.
constexpr char other_kind_of_key[] =
    "-----BEGIN PUBLIC KEY-----\n"
    "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEKrBAR/E049UIx+3N2wE840wyejkb\n"
    "K5W1L8HHueH+RxJOBP7NdzgtvVqge6I0Legw9+UAxAFGqzDqLreX7zekzw==\n"
    "-----END PUBLIC KEY-----\n";

class Rsa : public ::testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        EVP_PKEY *made = nullptr;
        EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
        ASSERT_TRUE(EVP_PKEY_keygen_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, GetParam()) > 0 &&
                    EVP_PKEY_keygen(ctx, &made) > 0);
        EVP_PKEY_CTX_free(ctx);
        pkey_.reset(made);
        const handle<BIO, &BIO_free> bio(BIO_new(BIO_s_mem()));
        ASSERT_TRUE(PEM_write_bio_PUBKEY(bio.get(), made));
        char *text;
        const long len = BIO_get_mem_data(bio.get(), &text);
        pem_.assign(text, static_cast<std::size_t>(len));
    }
    std::string decrypt(const bytes_ptr &cipher, int len) const {
        const int k = EVP_PKEY_size(pkey_.get());
        std::string plain(static_cast<std::size_t>(len), '\0');
        for (int at = 0; at < len; at += k) {
            const handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free> ctx(EVP_PKEY_CTX_new(pkey_.get(), nullptr));
            std::size_t out = static_cast<std::size_t>(k);
            EXPECT_TRUE(EVP_PKEY_decrypt_init(ctx.get()) > 0 &&
                        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) > 0 &&
                        EVP_PKEY_decrypt(ctx.get(), reinterpret_cast<unsigned char *>(plain.data()) + at,
                                         &out, cipher.get() + at, static_cast<std::size_t>(k)) > 0);
        }
        return plain;
    }
    handle<EVP_PKEY, &EVP_PKEY_free> pkey_;
    std::string pem_;
};

TEST_P(Rsa, FillsUpToWholeBlocksOfTheModulus) {
    const int k = GetParam() / 8;
    struct {
        int key_bytes, in, out;
        unsigned char filler;
    } const cases[] = {{128, 10, 128, 118}, {128, 127, 128, 1}, {128, 128, 256, 128}, {128, 131, 256, 125},
                       {256, 10, 256, 246}, {256, 255, 256, 1}, {256, 256, 512, 0}};
    for (const auto &c : cases) {
        if (c.key_bytes != k)
            continue;
        const std::string plain(static_cast<std::size_t>(c.in), '\x01');
        bytes_ptr cipher;
        ASSERT_EQ(_do_rsa_encrypt(plain.data(), c.in, cipher, pem_.c_str()), c.out);
        EXPECT_EQ(decrypt(cipher, c.out),
                  plain + std::string(static_cast<std::size_t>(c.out - c.in), static_cast<char>(c.filler)));
    }
}

TEST_P(Rsa, RefusesWhatIsNoPublicKey) {
    bytes_ptr cipher;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(_do_rsa_encrypt("x", 1, cipher, "no key"), 0);
    EXPECT_EQ(_do_rsa_encrypt("x", 1, cipher, other_kind_of_key), 0);
    EXPECT_EQ(_do_rsa_encrypt("x", 1, cipher, nullptr), 0);
    EXPECT_EQ(cipher, nullptr);
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("[ERROR] failed to get rsa :\n"), std::string::npos);
    EXPECT_NE(log.find("no key\n"), std::string::npos);
    EXPECT_NE(log.find("BEGIN PUBLIC KEY"), std::string::npos);
    EXPECT_NE(log.find("[ERROR] failed to create key BIO\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(KeySizes, Rsa, ::testing::Values(1024, 2048));

// What travels between the two sides.
void carry(const dh_key &from, dh_key &to, bool parameters) {
    if (parameters) {
        to.p = _strdup(from.p.get());
        to.g = _strdup(from.g.get());
        to.client_pub = _strdup(from.client_pub.get());
    } else {
        to.server_pub = _strdup(from.server_pub.get());
    }
}

int number_of_bits(const text_ptr &base64) {
    text_ptr bytes;
    const int len = _do_b64_code(base64.get(), _strlen(base64.get()), bytes, false);
    const bignum_ptr n(BN_bin2bn(reinterpret_cast<unsigned char *>(bytes.get()), len, nullptr));
    return BN_num_bits(n.get());
}

TEST(DiffieHellman, BothSidesAgree) {
    for (int i = 0; i < 20; i++) {
        dh_key client, server;
        gen_client_dh_key(client);
        ASSERT_NE(client.client_pub, nullptr);
        EXPECT_EQ(number_of_bits(client.p), 128);
        EXPECT_STREQ(client.g.get(), "Ag==");
        EXPECT_EQ(client.aes_key, nullptr);
        carry(client, server, true);
        gen_server_dh_aes_key(server);
        carry(server, client, false);
        gen_client_dh_aes_key(client);
        ASSERT_NE(client.aes_key, nullptr);
        EXPECT_EQ(hex(client.aes_key.get(), 16), hex(server.aes_key.get(), 16));
        EXPECT_EQ(BN_mod_word(client.dh->p.get(), 24), 23u);
        free_dh_key(client);
        EXPECT_EQ(client.aes_key, nullptr);
        EXPECT_EQ(client.p, nullptr);
    }
}

// A shared number with a leading zero byte: the peer's public value 2^k makes the secret p's remainder of a
// known power, so trying a few k finds one that is short.
TEST(DiffieHellman, ShortSecretsAreLeftAlignedAndLogged) {
    dh_key client;
    gen_client_dh_key(client);
    const handle<BN_CTX, &BN_CTX_free> ctx(BN_CTX_new());
    const bignum_ptr peer(BN_new()), shared(BN_new());
    BN_set_word(peer.get(), 2);
    do {
        BN_lshift1(peer.get(), peer.get());
        BN_mod(peer.get(), peer.get(), client.dh->p.get(), ctx.get());
        BN_mod_exp(shared.get(), peer.get(), client.dh->private_value.get(), client.dh->p.get(), ctx.get());
    } while (BN_num_bytes(shared.get()) != 15);
    unsigned char bytes[16], expected[16] = {};
    text_ptr text;
    _do_b64_code(bytes, BN_bn2bin(peer.get(), bytes), text, true);
    client.server_pub = std::move(text);
    ::testing::internal::CaptureStderr();
    gen_client_dh_aes_key(client);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                  "[ERROR] gen_client_dh_aes_key aes key len invalid: 15\n"),
              std::string::npos);
    BN_bn2bin(shared.get(), expected);
    EXPECT_EQ(hex(client.aes_key.get(), 16), hex(expected, 16));
}

TEST(DiffieHellman, ANewExchangeForgetsTheLast) {
    dh_key client, server;
    gen_client_dh_key(client);
    carry(client, server, true);
    gen_server_dh_aes_key(server);
    carry(server, client, false);
    gen_client_dh_aes_key(client);
    const std::string first = client.p.get();
    gen_client_dh_key(client);
    EXPECT_EQ(client.server_pub, nullptr);
    EXPECT_EQ(client.aes_key, nullptr);
    EXPECT_STRNE(client.p.get(), first.c_str());
}

std::string computed(const text_ptr &prime, int offset) {
    text_ptr bytes;
    const int len = _do_b64_code(prime.get(), _strlen(prime.get()), bytes, false);
    const bignum_ptr n(BN_bin2bn(reinterpret_cast<unsigned char *>(bytes.get()), len, nullptr));
    BN_sub_word(n.get(), static_cast<BN_ULONG>(-offset));
    unsigned char out[16];
    text_ptr text;
    _do_b64_code(out, BN_bn2bin(n.get(), out), text, true);
    return text.get();
}

TEST(DiffieHellman, HostilePublicValues) {
    dh_key client;
    gen_client_dh_key(client);
    constexpr char undecodable[] = "[ERROR] gen_client_dh_aes_key base64 encode failed\n";
    constexpr char outside[] = "[ERROR] gen_client_dh_aes_key aes key len invalid: -1\n";
    const std::string p = client.p.get(), top = computed(client.p, -1);
    struct {
        const char *pub, *log;
        bool key;
    } const cases[] = {{nullptr, undecodable, false}, {"", undecodable, false},
                       {"!!!!", undecodable, false},  {"AQ==", outside, true},
                       {p.c_str(), outside, true},    {top.c_str(), outside, true},
                       {"AA==", outside, true},       {"//////////////////////////8=", outside, true}};
    for (const auto &c : cases) {
        client.server_pub = _strdup(c.pub);
        client.aes_key.reset();
        ::testing::internal::CaptureStderr();
        gen_client_dh_aes_key(client);
        EXPECT_NE(::testing::internal::GetCapturedStderr().find(c.log), std::string::npos)
            << text_or_empty(c.pub);
        EXPECT_EQ(client.aes_key != nullptr, c.key) << text_or_empty(c.pub);
        if (client.aes_key) {
            EXPECT_EQ(hex(client.aes_key.get(), 16), std::string(32, '0'));
        }
    }
    client.server_pub = _strdup("Ag==");
    client.dh.reset();
    ::testing::internal::CaptureStderr();
    gen_client_dh_aes_key(client);  // no parameters of its own
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("[ERROR] gen_client_dh_aes_key bin2bn failed\n"),
              std::string::npos);
}

TEST(DiffieHellman, HostileParameters) {
    struct {
        const char *p, *g, *pub, *log;
    } const cases[] = {
        {nullptr, "Ag==", "Ag==", "[ERROR] gen_server_dh_aes_key base64 decode failed\n"},
        {"Fw==", "", "Ag==", "[ERROR] gen_server_dh_aes_key base64 decode failed\n"},
        {"Fw==", "Ag==", "?", "[ERROR] gen_server_dh_aes_key base64 decode failed\n"},
        {"AA==", "Ag==", "Ag==", "[ERROR] gen_server_dh_aes_key generate key failed\n"},
        {"Fw==", "Ag==", "Ag==", "[ERROR] gen_server_dh_aes_key aes key len invalid: 1\n"},
    };
    for (const auto &c : cases) {
        dh_key server;
        server.p = _strdup(c.p);
        server.g = _strdup(c.g);
        server.client_pub = _strdup(c.pub);
        ::testing::internal::CaptureStderr();
        gen_server_dh_aes_key(server);
        EXPECT_NE(::testing::internal::GetCapturedStderr().find(c.log), std::string::npos) << c.log;
        if (server.aes_key) {
            EXPECT_EQ(hex(server.aes_key.get(), 16).substr(2),
                      std::string(30, '0'));  // never fewer than a key's bytes
        }
    }
}

}  // namespace
}  // namespace arvok
