#pragma once
/// How a command ended, in its reply.

#include "base/bus_message.h"

namespace arvok::access {

/// That it went well, as "Status" and then "FailReason".
inline void add_success(bus_message &reply) {
    reply.text("Status", "0");
    reply.text("FailReason", "");
}

inline constexpr char info_not_array[] = "Info is not array";
/// With "-1": the disk refused, and everything is as it was.
inline constexpr char save_failed[] = "save failed";

}  // namespace arvok::access
