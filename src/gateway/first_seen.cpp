#include "gateway/first_seen.h"

#include <algorithm>
#include <utility>

#include "base/text.h"

namespace arvok::gateway {

std::time_t first_seen::of(std::string_view mac) {
    std::string key = upper_case(mac);
    if (const auto seen = by_mac_.find(key); seen != by_mac_.end()) {
        hosts_.splice(hosts_.begin(), hosts_, seen->second);
        return seen->second->time;
    }
    const host &added = hosts_.emplace_front(host{std::move(key), now_()});
    by_mac_.emplace(added.mac, hosts_.begin());
    return added.time;
}

void first_seen::forget_others(std::size_t active) {
    while (hosts_.size() > std::max(active, hosts_max)) {
        by_mac_.erase(hosts_.back().mac);
        hosts_.pop_back();
    }
}

}  // namespace arvok::gateway
