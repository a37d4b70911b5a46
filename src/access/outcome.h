#pragma once
/// How a command ended, in its reply.

#include <string_view>

#include "base/bus_message.h"

namespace arvok::access {

/// As "FailReason" and then "Status".
inline void add_outcome(bus_message &reply, std::string_view reason, std::string_view status) {
    reply.text("FailReason", reason);
    reply.text("Status", status);
}

/// That it went well, as "Status" and then "FailReason".
inline void add_success(bus_message &reply) {
    reply.text("Status", "0");
    reply.text("FailReason", "");
}

inline constexpr char info_not_array[] = "Info is not array";

}  // namespace arvok::access
