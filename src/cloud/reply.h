#pragma once
/// Replies to the platform's requests.

#include <string>
#include <string_view>

#include "base/json.h"

namespace arvok::cloud {

/// What has come of a request. It has failed until it is known to have succeeded.
struct outcome {
    int code = -1;       ///< 0, or why not
    std::string reason;  ///< in words

    /// Sets the reason, cut at 255 bytes, and logs it.
    void fail(std::string_view why);
};

/// The reason of a reply that would be longer than a message may be.
inline constexpr char too_long[] = "reply too long";

/// The reply with the result, the reason of a failure, and what else there is to tell: `item` under `key`. It
/// has failed instead if that makes it too long.
json::value reply_to(json::view request, const outcome &result, const char *key = "",
                     const json::value &item = {});

}  // namespace arvok::cloud
