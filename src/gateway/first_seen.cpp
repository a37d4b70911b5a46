#include "gateway/first_seen.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/text.h"

namespace arvok::gateway {

std::time_t first_seen::of(std::string_view mac) {
    std::string key = upper_case(mac);
    auto seen =
        std::lower_bound(hosts_.begin(), hosts_.end(), key,
                         [](const host &each, const std::string &wanted) { return each.mac < wanted; });
    if (seen == hosts_.end() || seen->mac != key)
        seen = hosts_.insert(seen, {std::move(key), now_(), 0});
    seen->asked = ++questions_;
    return seen->time;
}

void first_seen::forget_others(std::size_t active) {
    const std::size_t kept = std::max(active, hosts_max);
    if (hosts_.size() <= kept)
        return;
    std::vector<std::uint64_t> asked;
    for (const host &each : hosts_)
        asked.push_back(each.asked);
    const auto oldest_kept = asked.end() - static_cast<std::ptrdiff_t>(kept);
    std::nth_element(asked.begin(), oldest_kept, asked.end());
    std::erase_if(hosts_, [&](const host &each) { return each.asked < *oldest_kept; });
    // Without exceptions a vector does not shrink by itself.
    std::vector<host>(std::make_move_iterator(hosts_.begin()), std::make_move_iterator(hosts_.end()))
        .swap(hosts_);
}

}  // namespace arvok::gateway
