#pragma once
/// The platform's notifications: hosts that come and go, WAN, gateway sync, roaming, mesh, received elements.
///
/// Each is logged and turned into a report or event for the gateway or a change of state. What asks the
/// platform for that waits for its turn: one is served at a time, and everybody else who waits comes in
/// between. Those that wait together share one look at the hosts. Of an object that
/// has been away, what it would have notified is read: the state of the WAN, gateway sync; and the access
/// rules are applied to the hosts that there are then.

#include <string>
#include <string_view>

#include "agent/modules.h"
#include "agent/waiting_notifications.h"
#include "base/json.h"
#include "base/loop.h"
#include "platform/host_snapshot.h"
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
    void host(const heard_notification &heard, json::view event);
    void wan(const heard_notification &heard, json::view event);
    void wifi(const heard_notification &heard, json::view event);
    void roaming(const heard_notification &heard, json::view event);
    void mesh(const heard_notification &heard, json::view event);
    void element(const heard_notification &heard, json::view event);

    bool catch_up_hosts();
    bool catch_up_wan();
    bool catch_up_sync();

    template <auto Act, const char *Name>
    int act(std::string_view method, blob_attr *message);
    template <auto Act, const char *Name>
    int wait(std::string_view method, blob_attr *message);
    void serve_next();
    void host_appeared();

    modules &modules_;
    waiting_notifications waiting_;
    next_round turn_;
    std::uint64_t batch_end_ = 0;    ///< those up to this number share what follows
    platform::host_snapshot hosts_;  ///< for the reports of the batch
    bool appeared_ = false;          ///< the rules have been told of the batch's hosts
    platform::subscription host_, wan_, wifi_, roaming_, mesh_, element_;
};

}  // namespace arvok
