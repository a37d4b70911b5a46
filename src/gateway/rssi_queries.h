#pragma once
/// Who has asked how a station is heard, until the platform tells: its notification does not say for whom.

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/hex.h"
#include "base/text.h"

namespace arvok::gateway {

enum class rssi_asker { gateway, cloud };

class rssi_queries {
  public:
    /// A query of so many seconds has begun. Its asker is known until its result is due and some seconds
    /// more: one whose result never comes takes none of a later one's. Of more than the limit the oldest are
    /// forgotten.
    void begun(std::string_view mac, rssi_asker asker, long duration_s) {
        forget_overdue();
        if (queries_.size() == max)
            queries_.pop_front();
        queries_.push_back({normalised_mac(mac), asker, uptime() + duration_s});
    }

    /// A result has come. Who asked for it: of several who wait for that station, the one whose result is due
    /// first. Nothing when nobody did.
    std::optional<rssi_asker> ended(std::string_view mac) {
        forget_overdue();
        const std::string station = normalised_mac(mac);
        auto found = queries_.end();
        for (auto at = queries_.begin(); at != queries_.end(); ++at)
            if (same_ignoring_case(at->mac, station) && (found == queries_.end() || at->due_s < found->due_s))
                found = at;
        if (found == queries_.end())
            return std::nullopt;
        const rssi_asker asker = found->asker;
        queries_.erase(found);
        return asker;
    }

  private:
    struct query {
        std::string mac;
        rssi_asker asker;
        long due_s;  ///< uptime
    };

    static constexpr std::size_t max = 64;
    static constexpr long late_s = 5;  ///< a platform that is busy tells later

    void forget_overdue() {
        std::erase_if(queries_, [now = uptime()](const query &one) { return one.due_s + late_s < now; });
    }

    std::deque<query> queries_;  ///< the oldest first
};

}  // namespace arvok::gateway
