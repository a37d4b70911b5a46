#pragma once
/// The platform's notifications: hosts that come and go, WAN, gateway sync, roaming, mesh, received elements.
///
/// Each is logged and turned into a report or event for the gateway or a change of state. Of an object that
/// has been away, what it would have notified is read: the state of the WAN, gateway sync; and the access
/// rules are applied to the hosts that there are then.

#include <string>
#include <string_view>

#include "agent/modules.h"
#include "base/json.h"
#include "platform/subscription.h"

namespace arvok {

class platform_events {
  public:
    /// Subscribes to the six platform objects. Both are borrowed.
    platform_events(modules &running, platform::object_watch &objects);
    /// Ends the subscriptions.
    ~platform_events();
    platform_events(const platform_events &) = delete;
    platform_events &operator=(const platform_events &) = delete;

  private:
    /// A notification as text, and what that parses to.
    struct notification {
        std::string_view method;
        const std::string &text;
        json::view event;
    };

    void host(const notification &heard);
    void wan(const notification &heard);
    void wifi(const notification &heard);
    void roaming(const notification &heard);
    void mesh(const notification &heard);
    void element(const notification &heard);

    bool catch_up_hosts();
    bool catch_up_wan();
    bool catch_up_sync();

    template <void (platform_events::*Act)(const notification &), const char *Name>
    int take(std::string_view method, blob_attr *message);

    modules &modules_;
    platform::subscription host_, wan_, wifi_, roaming_, mesh_, element_;
};

}  // namespace arvok
