#pragma once
/// The platform's notifications: hosts that come and go, WAN, gateway sync, roaming, mesh, received elements.
///
/// Each is logged and turned into a report or event for the gateway or a change of state. A report that asks
/// the platform waits for its turn: one is made at a time, and everybody else who waits comes in between.
/// Those that wait together share one look at the hosts. Of an object that has been away, what it would have
/// notified is read: the state of the WAN, gateway sync; and the access rules are applied to the hosts that
/// there are then.

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
    /// A notification as text, and what that parses to.
    struct notification {
        std::string_view method;
        const std::string &text;
        json::view event;
    };

    template <void (platform_events::*Act)(const notification &), const char *Name>
    int take(std::string_view method, blob_attr *message);

    void host(const notification &heard);
    void wan(const notification &heard);
    void wifi(const notification &heard);
    void roaming(const notification &heard);
    void mesh(const notification &heard);
    void element(const notification &heard);

    template <void (platform_events::*Report)(const notification &)>
    void wait(const notification &heard);
    void serve_next();
    void report_host(const notification &heard);
    void report_wan(const notification &heard);
    void report_mesh(const notification &heard);
    void host_appeared();

    bool catch_up_hosts();
    bool catch_up_wan();
    bool catch_up_sync();

    modules &modules_;
    waiting_notifications waiting_;
    next_round turn_;
    std::uint64_t batch_end_ = 0;    ///< those up to this number share what follows
    platform::host_snapshot hosts_;  ///< for the reports of the batch
    bool appeared_ = false;          ///< the rules have been told of the batch's hosts
    platform::subscription host_, wan_, wifi_, roaming_, mesh_, element_;
};

}  // namespace arvok
