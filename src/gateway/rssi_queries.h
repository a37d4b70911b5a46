#pragma once
/// Who has asked how a station is heard, until the platform tells: its notification does not say for whom.

#include <algorithm>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "base/hex.h"
#include "base/text.h"

namespace arvok::gateway {

class rssi_queries {
  public:
    /// A query has begun. Of more than the limit the oldest are forgotten: their results went astray.
    void begun(std::string_view mac, bool from_cloud) {
        if (queries_.size() == max)
            queries_.pop_front();
        queries_.push_back({normalised_mac(mac), from_cloud});
    }

    /// A result has come. Whether the cloud asked for it; of several who wait for that station, the first
    /// did.
    bool end_for_cloud(std::string_view mac) {
        const std::string station = normalised_mac(mac);
        const auto found = std::find_if(queries_.begin(), queries_.end(), [&station](const query &one) {
            return same_ignoring_case(one.mac, station);
        });
        if (found == queries_.end())
            return false;
        const bool from_cloud = found->from_cloud;
        queries_.erase(found);
        return from_cloud;
    }

  private:
    struct query {
        std::string mac;
        bool from_cloud;
    };

    static constexpr std::size_t max = 64;

    std::deque<query> queries_;  ///< the oldest first
};

}  // namespace arvok::gateway
