#include "arvok_client/frame.h"

#include <arpa/inet.h>

#include <cstring>

#include "common/crypto.h"
#include "common/stream.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

struct frame_header {
    std::uint32_t magic;
    std::uint32_t length;
};
static_assert(sizeof(frame_header) == frame_header_size);

}  // namespace

std::vector<char> frame_encode(const char *text, int len, const unsigned char *key) {
    text_ptr cipher;
    if (key) {
        if (_do_aes_cbc_crypt(text, len, cipher, len, key, true) < 0)
            return {};
        text = cipher.get();
    }
    const frame_header header{htonl(frame_magic), htonl(static_cast<std::uint32_t>(len))};
    std::vector<char> frame(static_cast<std::size_t>(frame_header_size + len));
    std::memcpy(frame.data(), &header, frame_header_size);
    std::memcpy(frame.data() + frame_header_size, text, static_cast<std::size_t>(len));
    return frame;
}

int frame_body_length(const void *bytes) {
    frame_header header;
    std::memcpy(&header, bytes, sizeof header);
    std::uint32_t length = ntohl(header.length);
    if (ntohl(header.magic) != frame_magic) {
        qzcap_printf("[ERROR] invalid magic 0x%x\n", ntohl(header.magic));
        length = 0;
    }
    if (length < 1 || length > max_body) {
        qzcap_printf("[ERROR] (arvok) invalid msg header, %d\n", static_cast<int>(length));
        return 0;
    }
    return static_cast<int>(length);
}

text_ptr frame_body_text(const char *body, int len, const unsigned char *key) {
    if (!key)
        return _strdup(body);
    text_ptr plain;
    int plain_len;
    _do_aes_cbc_crypt(body, len, plain, plain_len, key, false);
    return plain;
}

}  // namespace arvok
