// The least that a program takes which does what the agent cannot do without: it loads the same libraries,
// opens the bus and encrypts one block. Then it says so and waits for its end, so that its memory can be
// measured.

#include <openssl/evp.h>
#include <unistd.h>

#include <memory>

extern "C" {
#include <libubus.h>
}

int main() {
    const std::unique_ptr<ubus_context, void (*)(ubus_context *)> bus(ubus_connect(nullptr), ubus_free);
    const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX *)> cipher(EVP_CIPHER_CTX_new(),
                                                                             EVP_CIPHER_CTX_free);
    const unsigned char key[16] = {}, block[16] = {};
    unsigned char encrypted[32];
    int size = 0;
    if (!bus || !cipher || !EVP_EncryptInit_ex(cipher.get(), EVP_aes_128_ecb(), nullptr, key, nullptr) ||
        !EVP_EncryptUpdate(cipher.get(), encrypted, &size, block, sizeof block))
        return 1;
    if (write(STDOUT_FILENO, "ready\n", 6) != 6)
        return 1;
    pause();
    return 0;
}
