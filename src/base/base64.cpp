#include "base/base64.h"

extern "C" {
#include <libubox/utils.h>
}

namespace arvok {

std::string base64_encode(std::string_view bytes) {
    std::string text;
    append_base64(text, bytes);
    return text;
}

void append_base64(std::string &text, std::string_view bytes) {
    const std::size_t begin = text.size(), room = (bytes.size() + 2) / 3 * 4 + 1;
    text.resize(begin + room);
    const int length = b64_encode(bytes.data(), bytes.size(), text.data() + begin, room);
    text.resize(length < 0 ? begin : begin + static_cast<std::size_t>(length));
}

std::optional<std::string> base64_decode(std::string_view text) {
    const std::string terminated(text);
    std::string bytes(text.size() / 4 * 3 + 1, '\0');
    const int length = b64_decode(terminated.c_str(), bytes.data(), bytes.size());
    if (length < 0)
        return std::nullopt;
    bytes.resize(static_cast<std::size_t>(length));
    return bytes;
}

}  // namespace arvok
