#include "cloud_client/frame.h"

#include <arpa/inet.h>

#include <cstring>

#include "common/crypto.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

struct frame_header {
    std::uint32_t magic[2];
    std::uint32_t length;
};
static_assert(sizeof(frame_header) == cc_header_size);

constexpr std::uint32_t magic[2] = {0x515a5347, 0x574d5032};  // "QZSGWMP2"
constexpr char frame_end[] = "\r\n";
constexpr int frame_end_size = 2;

const unsigned char *key_bytes(const text_ptr &key) {
    return reinterpret_cast<const unsigned char *>(key.get());
}

// What goes into the base64: `out` and its length. False when nothing may be sent.
bool encrypt(const cloud_client &client, const char *text, int len, bytes_ptr &out, int &out_len) {
    switch (client.status) {
        case cc_bootstrap:
        case cc_activating:
        case cc_connecting:
            if (!client.public_key) {
                qzcap_printf("[ERROR] encrypt public key is null\n");
                return false;
            }
            out_len = _do_rsa_encrypt(text, len, out, client.public_key);
            return out_len > 0;
        case cc_challenge:
            out.reset(reinterpret_cast<unsigned char *>(_strdup(text).release()));
            out_len = len;
            return true;
        case cc_connected: {
            if (!client.server_key) {
                qzcap_printf("[ERROR] encrypt server key is null\n");
                return false;
            }
            text_ptr cipher;
            const int done =
                _do_aes_ecb_crypt(text, len, cipher, out_len, key_bytes(client.server_key), true);
            out.reset(reinterpret_cast<unsigned char *>(cipher.release()));
            return done >= 0;
        }
        default:
            qzcap_printf("[ERROR] unknown connection status\n");
            return false;
    }
}

text_ptr decrypt(const text_ptr &key, const char *key_name, const text_ptr &cipher, int &len) {
    text_ptr plain;
    if (!key)
        qzcap_printf("[ERROR] decrypt %s key is null\n", key_name);
    else
        _do_aes_ecb_crypt(cipher.get(), len, plain, len, key_bytes(key), false);
    return plain;
}

}  // namespace

std::vector<char> cc_frame_encode(const cloud_client &client, const char *text, int len) {
    bytes_ptr data;
    int data_len = 0;
    if (!encrypt(client, text, len, data, data_len))
        return {};
    text_ptr base64;
    const int base64_len = _do_b64_code(data.get(), data_len, base64, true);
    if (base64_len < 0) {
        qzcap_printf("[ERROR] b64 decode failed\n");
        return {};
    }
    const int body_len = base64_len + frame_end_size;
    const frame_header header{{htonl(magic[0]), htonl(magic[1])},
                              htonl(static_cast<std::uint32_t>(body_len))};
    std::vector<char> frame(static_cast<std::size_t>(cc_header_size + body_len));
    std::memcpy(frame.data(), &header, cc_header_size);
    std::memcpy(frame.data() + cc_header_size, base64.get(), static_cast<std::size_t>(base64_len));
    std::memcpy(frame.data() + cc_header_size + base64_len, frame_end, frame_end_size);
    return frame;
}

int cc_frame_body_length(const void *bytes) {
    frame_header header;
    std::memcpy(&header, bytes, sizeof header);
    std::uint32_t length = ntohl(header.length);
    if (ntohl(header.magic[0]) != magic[0] || ntohl(header.magic[1]) != magic[1]) {
        qzcap_printf("[ERROR] invalid magic 0x%x\n", ntohl(header.magic[0]));
        length = 0;
    }
    if (length < 1 || length > max_body) {
        qzcap_printf("[ERROR] (cloud) invalid msg header, %d\n", static_cast<int>(length));
        return 0;
    }
    return static_cast<int>(length);
}

text_ptr cc_frame_body_text(const cloud_client &client, char *body, int len, int &text_len) {
    const int base64_len = len - frame_end_size;
    if (base64_len < 0 || std::memcmp(body + base64_len, frame_end, frame_end_size) != 0) {
        qzcap_printf("[ERROR] invalid msg, not end with \\r\\n\n");
        return nullptr;
    }
    body[base64_len] = '\0';
    text_ptr data;
    text_len = _do_b64_code(body, base64_len, data, false);
    if (text_len <= 0)
        return nullptr;
    switch (client.status) {
        case cc_bootstrap:
        case cc_activating:
        case cc_connecting:
            return decrypt(client.client_key, "client", data, text_len);
        case cc_challenge:
            return data;
        case cc_connected:
            return decrypt(client.server_key, "server", data, text_len);
        default:
            qzcap_printf("[ERROR] unknown connection status\n");
            return nullptr;
    }
}

}  // namespace arvok
