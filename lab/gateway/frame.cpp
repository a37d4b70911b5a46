#include "frame.h"

namespace arvok::lab {
namespace {

void append_word(std::string &bytes, std::uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>((word >> shift) & 0xff));
}

std::uint32_t word_at(std::string_view bytes, std::size_t offset) {
    std::uint32_t word = 0;
    for (const char byte : bytes.substr(offset, 4))
        word = (word << 8) | static_cast<unsigned char>(byte);
    return word;
}

}  // namespace

std::string make_header(std::uint32_t magic, std::uint32_t length) {
    std::string bytes;
    append_word(bytes, magic);
    append_word(bytes, length);
    return bytes;
}

std::string make_frame(std::string_view body) {
    return make_header(frame_magic, static_cast<std::uint32_t>(body.size())).append(body);
}

FrameReader::Next FrameReader::next(std::string &body, std::uint32_t &word) {
    if (pending_.size() < frame_header)
        return Next::incomplete;
    word = word_at(pending_, 0);
    if (word != frame_magic)
        return Next::bad_magic;
    word = word_at(pending_, 4);
    if (word == 0 || word > frame_max_received)
        return Next::bad_length;
    if (pending_.size() - frame_header < word)
        return Next::incomplete;
    body.assign(pending_, frame_header, word);
    pending_.erase(0, frame_header + word);
    return Next::frame;
}

}  // namespace arvok::lab
