#include "gateway/first_seen.h"

#include <algorithm>

#include "base/text.h"

namespace arvok::gateway {

std::time_t first_seen::of(std::string_view mac) {
    const auto seen = std::find_if(hosts_.begin(), hosts_.end(),
                                   [mac](const host &h) { return same_ignoring_case(h.mac, mac); });
    if (seen != hosts_.end()) {
        hosts_.splice(hosts_.begin(), hosts_, seen);
        return seen->time;
    }
    if (hosts_.size() >= hosts_max)
        hosts_.pop_back();
    return hosts_.emplace_front(host{std::string(mac), now_()}).time;
}

}  // namespace arvok::gateway
