#include "cloud/frame.h"
#include "base/base64.h"

#include <algorithm>
#include <cstdint>

#include "base/log.h"
#include "base/stream.h"

namespace arvok::cloud {
namespace {

constexpr std::string_view magic = "QZSGWMP2";
constexpr std::string_view frame_end = "\r\n";
constexpr std::size_t piece_max = std::size_t{48} * 1024;  // bytes, in threes, that are written at once

std::uint32_t word_at(std::string_view bytes, std::size_t at) {
    std::uint32_t word = 0;
    for (const char c : bytes.substr(at, sizeof word))
        word = word << 8 | static_cast<unsigned char>(c);
    return word;
}

bool encrypt(stage at, key_ring &keys, std::string &text) {
    if (at == stage::challenge)
        return true;
    if (at != stage::connected) {
        text = keys.platform.encrypt(text);
        return !text.empty();
    }
    if (keys.server)
        return keys.server->encrypt(text);
    log_printf("[ERROR] encrypt server key is null\n");
    return false;
}

bool decrypt(stage at, key_ring &keys, std::string &data) {
    if (at == stage::challenge)
        return true;
    if (at == stage::connected) {
        if (keys.server)
            return keys.server->decrypt(data);
        log_printf("[ERROR] decrypt server key is null\n");
    } else {
        if (keys.client)
            return aes(aes_mode::ecb, *keys.client).decrypt(data);
        log_printf("[ERROR] decrypt client key is null\n");
    }
    return false;
}

}  // namespace

std::size_t write_frame(stage at, key_ring &keys, std::string text, callback<void(std::string_view)> write) {
    if (!encrypt(at, keys, text) || text.empty())
        return 0;
    const std::size_t length = (text.size() + 2) / 3 * 4 + frame_end.size();
    std::string piece(magic);
    for (const int shift : {24, 16, 8, 0})
        piece += static_cast<char>(length >> shift);
    for (std::string_view rest = text; !rest.empty(); piece.clear()) {
        append_base64(piece, rest.substr(0, piece_max));
        rest.remove_prefix(std::min(piece_max, rest.size()));
        if (rest.empty())
            piece += frame_end;
        write(piece);
    }
    return frame_header_size + length;
}

std::optional<std::size_t> body_length(std::string_view header) {
    std::uint32_t length = word_at(header, magic.size());
    if (header.substr(0, magic.size()) != magic) {
        log_printf("[ERROR] invalid magic 0x%x\n", word_at(header, 0));
        length = 0;
    }
    if (length < 1 || length > body_max) {
        log_printf("[ERROR] (cloud) invalid msg header, %d\n", static_cast<int>(length));
        return std::nullopt;
    }
    return length;
}

std::optional<std::string> decode_body(stage at, key_ring &keys, std::string_view body) {
    if (!body.ends_with(frame_end)) {
        log_printf("[ERROR] invalid msg, not end with \\r\\n\n");
        return std::nullopt;
    }
    body.remove_suffix(frame_end.size());
    std::optional<std::string> data = base64_decode(body);
    if (!data || data->empty())
        return std::nullopt;
    if (!decrypt(at, keys, *data))
        return std::nullopt;
    return data;
}

}  // namespace arvok::cloud
