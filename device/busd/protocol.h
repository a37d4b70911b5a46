// What the bus of the desk needs to know beyond the client library's headers, of which only the names are
// used that every supported release has.
#pragma once

#include <cstddef>

extern "C" {
#include <libubus.h>
}

namespace arvok {

/// Of a message without its header; either side refuses more. The real library is told it when it is built,
/// and does not publish it.
inline constexpr std::size_t MAX_MESSAGE = 1048576;

/// Statuses that the oldest supported headers do not name yet. They travel as numbers, like the others.
inline constexpr int STATUS_NO_MEMORY = 11;
inline constexpr int STATUS_PARSE_ERROR = 12;
inline constexpr int STATUS_SYSTEM_ERROR = 13;

/// What a status means, in words.
inline const char *status_text(int status) {
    switch (status) {
        case STATUS_NO_MEMORY:
            return "Out of memory";
        case STATUS_PARSE_ERROR:
            return "Parsing message data failed";
        case STATUS_SYSTEM_ERROR:
            return "System error";
        default:
            return ubus_strerror(status);
    }
}

}  // namespace arvok
