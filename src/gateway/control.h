#pragma once
/// "control": commands of the gateway to the device, and the vendor-specific beacon elements that some of
/// them send.

#include <cstdint>
#include <list>
#include <string>

#include "gateway/request.h"

namespace arvok::gateway {

/// The beacon elements that the gateway had us send.
///
/// An element whose lifetime is over stays known, so that a gateway that never stops one must not fill the
/// memory: beyond sent_max the oldest is forgotten. It can no longer be stopped, and ends with its lifetime.
class beacons {
  public:
    static constexpr std::size_t sent_max = 256;

    /// "sendvsie": sends an element for a while.
    void send(request &r, json::view element);
    /// "stopvsie": ends one before its time.
    void stop(request &r, json::view element);

  private:
    struct sent {
        std::int32_t index;  ///< the platform's
        std::string id;      ///< the gateway's
    };
    std::list<sent> sent_;  ///< the newest first
};

bool handle_control(request &r);
/// "qlink", which this device does not have.
bool handle_qlink(request &r);

}  // namespace arvok::gateway
