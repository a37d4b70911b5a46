#pragma once
/// "ubus_call" and "ubus_subscribe": the platform's bus, for whoever may ask the device for its status.

#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/bus_calls.h"
#include "gateway/connection.h"
#include "gateway/request.h"
#include "platform/own_connection.h"
#include "platform/subscription.h"

namespace arvok::gateway {

class bus_bridge {
  public:
    /// Notifications and late replies go to whoever subscribed or asked.
    bus_bridge(connection &link, const link_state &state, platform::object_watch &objects,
               const cloud_listeners &cloud)
        : link_(link), state_(state), objects_(objects), cloud_(cloud) {}
    /// Ends all subscriptions and calls; nobody is told anything meanwhile.
    ~bus_bridge();
    bus_bridge(const bus_bridge &) = delete;
    bus_bridge &operator=(const bus_bridge &) = delete;

    /// The reply may follow when the calls have ended: the link is on hold until then.
    bool handle_call(request &r);
    bool handle_subscribe(request &r);

    /// Whoever asked has gone: the calls for it are aborted, and nobody is told.
    void abandon_link_calls() { link_calls_.abort(); }
    void abandon_cloud_calls() { cloud_calls_.abort(); }

  private:
    /// An object whose notifications are passed on.
    struct subscription {
        subscription(bus_bridge &, const std::string &name, bool cloud);
        int notified(std::string_view method, blob_attr *message);

        bus_bridge &bridge;
        const std::string object;  ///< as far as it is stored
        const bool from_cloud;     ///< who asked
        platform::subscription bus;
    };
    using subscriptions = std::list<subscription>;

    void answer_link(bus_calls::result done);
    void answer_cloud(bus_calls::result done);
    subscriptions::iterator find(std::string_view object, bool from_cloud);
    void subscribe(request &r, std::string_view object);
    void unsubscribe(request &r, std::string_view object);
    void pass_on(const subscription &from, std::string_view method, blob_attr *message);

    connection &link_;
    const link_state &state_;
    platform::object_watch &objects_;
    cloud_listeners cloud_;  ///< none at the end
    platform::own_connection bus_;
    subscriptions subscriptions_;  ///< the newest first
    bus_calls link_calls_{bind<&bus_bridge::answer_link>(*this)};
    bus_calls cloud_calls_{bind<&bus_bridge::answer_cloud>(*this)};
};

}  // namespace arvok::gateway
