#include "frame.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>

namespace arvok::lab {
namespace {

bool is_base64(char letter) {
    return std::isalnum(static_cast<unsigned char>(letter)) || letter == '+' || letter == '/';
}

}  // namespace

std::string make_header(std::string_view magic, std::uint32_t length) {
    std::string bytes(magic);
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>((length >> shift) & 0xff));
    return bytes;
}

std::string make_frame(std::string_view body) {
    return make_header(frame_magic, static_cast<std::uint32_t>(body.size())).append(body);
}

std::string make_body(std::string_view bytes) {
    return to_base64(bytes).append(end_of_line);
}

std::optional<std::string> open_body(std::string_view body) {
    if (!body.ends_with(end_of_line))
        return std::nullopt;
    return from_base64(body.substr(0, body.size() - end_of_line.size()));
}

std::string to_base64(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                       reinterpret_cast<const unsigned char *>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::optional<std::string> from_base64(std::string_view text) {
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    // The block decoder forgives blanks and misplaced padding.
    if (text.empty() || text.size() % 4 != 0 ||
        !std::all_of(text.begin(), text.end() - static_cast<std::ptrdiff_t>(padding), is_base64))
        return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    if (EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                        reinterpret_cast<const unsigned char *>(text.data()),
                        static_cast<int>(text.size())) < 0)
        return std::nullopt;
    bytes.resize(bytes.size() - padding);
    return bytes;
}

FrameReader::Next FrameReader::next(std::string &body, std::uint32_t &length) {
    // A wrong magic shows as soon as there is a wrong byte of it.
    const std::size_t seen = std::min(pending_.size(), frame_magic.size());
    if (pending_.compare(0, seen, frame_magic, 0, seen) != 0) {
        body.assign(pending_, 0, seen);
        return Next::bad_magic;
    }
    if (pending_.size() < frame_header)
        return Next::incomplete;
    length = 0;
    for (std::size_t at = frame_magic.size(); at < frame_header; at++)
        length = (length << 8) | static_cast<unsigned char>(pending_[at]);
    if (length == 0 || length > frame_max_received)
        return Next::bad_length;
    if (pending_.size() - frame_header < length)
        return Next::incomplete;
    body.assign(pending_, frame_header, length);
    pending_.erase(0, frame_header + length);
    return Next::frame;
}

}  // namespace arvok::lab
