#pragma once
/// The LAN hosts as the platform told of them when they were first asked for, for all that is told of one
/// moment.

#include <optional>

#include "platform/records.h"

namespace arvok::platform {

class host_snapshot {
  public:
    /// Null when the platform does not tell, who is asked twice at most.
    const host_list *hosts() {
        if (!hosts_ && asked_ < asked_max) {
            hosts_ = fetch_list<host_list>(qzcap_list_laninfo);
            asked_++;
        }
        return hosts_ ? &*hosts_ : nullptr;
    }
    /// The next moment begins.
    void forget() {
        hosts_.reset();
        asked_ = 0;
    }

  private:
    static constexpr int asked_max = 2;  // what an event is refused its report may get

    std::optional<host_list> hosts_;
    int asked_ = 0;
};

}  // namespace arvok::platform
