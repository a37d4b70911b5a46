#include "gateway/frame.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "base/log.h"

namespace arvok::gateway {
namespace {

constexpr std::uint32_t magic = 0x3f721fb5;

struct frame_header {
    std::uint32_t magic;
    std::uint32_t length;
};

std::optional<std::size_t> body_length(std::string_view bytes) {
    frame_header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    std::uint32_t length = ntohl(header.length);
    if (ntohl(header.magic) != magic) {
        log_printf("[ERROR] invalid magic 0x%x\n", ntohl(header.magic));
        length = 0;
    }
    if (length < 1 || length > body_max) {
        log_printf("[ERROR] (arvok) invalid msg header, %d\n", static_cast<int>(length));
        return std::nullopt;
    }
    return length;
}

}  // namespace

const frame_format link_frames{
    .header_size = sizeof(frame_header),
    .body_length = body_length,
    .short_header = "[ERROR] (arvok) read header failed, %d\n",
    .waiting = "[INFO] (arvok) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (arvok) read msg failed, %d %d\n",
    .forgets_length = true,
};

bool make_frame(std::string &text, aes *cipher) {
    constexpr std::size_t size = sizeof(frame_header);
    text.insert(0, size, '\0');
    if (cipher && !cipher->encrypt(text, size))
        return false;
    const frame_header header{htonl(magic), htonl(static_cast<std::uint32_t>(text.size() - size))};
    std::memcpy(text.data(), &header, size);
    return true;
}

}  // namespace arvok::gateway
