#include "base/frame_reader.h"

#include "base/log.h"

namespace arvok {

std::optional<std::size_t> frame_reader::read_header(stream &from) const {
    char header[header_max];
    const std::size_t got = from.read(header, format_.header_size);
    if (got < format_.header_size) {
        log_printf(format_.short_header, static_cast<int>(got));
        return std::nullopt;
    }
    return format_.body_length({header, format_.header_size});
}

bool frame_reader::read(stream &from, std::size_t available) {
    std::size_t length = pending_;
    while (available > format_.header_size) {
        if (length == 0) {
            const std::optional<std::size_t> told = read_header(from);
            if (!told)
                return false;
            length = *told;
            available -= format_.header_size;
            if (!format_.forgets_length)
                pending_ = length;
            continue;
        }
        if (available < length) {
            log_printf(format_.waiting, static_cast<int>(available), static_cast<int>(length));
            pending_ = length;
            break;
        }
        std::string body(length, '\0');
        const std::size_t got = from.read(body.data(), length);
        if (got < length) {
            log_printf(format_.short_body, static_cast<int>(got), static_cast<int>(length));
            return false;
        }
        available -= length;
        pending_ = length = 0;
        receive_(body);
        if (!from.is_open() || from.is_held())
            break;
    }
    return true;
}

}  // namespace arvok
