#pragma once
/// "control": commands of the gateway to the device, and the vendor-specific beacon elements that some of
/// them send.

#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "base/loop.h"
#include "gateway/request.h"

namespace arvok::gateway {

/// The beacon elements that the gateway had us send, as long as they are sent: the platform may give the
/// index of one that has ended to somebody else's.
class beacons {
  public:
    /// Elements at a time: each is in every beacon, of which an access point sends ten a second, and a few
    /// fill one.
    static constexpr std::size_t sent_max = 64;

    beacons() = default;
    beacons(const beacons &) = delete;
    beacons &operator=(const beacons &) = delete;

    /// "sendvsie": sends an element for a while, in the place of one of the same id.
    void send(request &r, json::view element);
    /// "stopvsie": ends one before its time.
    void stop(request &r, json::view element);

  private:
    struct sent {
        sent(beacons &o, std::int32_t i, std::string_view name, int lifetime_s);
        void forget();

        beacons &owner;
        const std::int32_t index;  ///< the platform's
        const std::string id;      ///< the gateway's
        timer end;                 ///< of its lifetime
    };

    std::list<sent>::iterator find(std::string_view id);

    std::list<sent> sent_;
};

bool handle_control(request &r);
/// "qlink", which this device does not have.
bool handle_qlink(request &r);

}  // namespace arvok::gateway
