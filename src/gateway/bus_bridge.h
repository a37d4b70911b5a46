#pragma once
/// "ubus_call" and "ubus_subscribe": the platform's bus, for whoever may ask the device for its status.

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/connection.h"
#include "gateway/request.h"
#include "platform/subscription.h"

namespace arvok::gateway {

struct bus_method {
    std::string object;
    std::string name;
};

class bus_bridge {
  public:
    /// Notifications go to whoever subscribed: on the link, or as a text to `notify_cloud`, an empty one for
    /// one that is too long.
    bus_bridge(connection &link, const link_state &state, platform::object_watch &objects,
               callback<void(std::string)> notify_cloud)
        : link_(link), state_(state), objects_(objects), notify_cloud_(notify_cloud) {}
    /// Ends all subscriptions; nobody is told anything meanwhile.
    ~bus_bridge();
    bus_bridge(const bus_bridge &) = delete;
    bus_bridge &operator=(const bus_bridge &) = delete;

    bool handle_call(request &r);
    bool handle_subscribe(request &r);

  private:
    using time_point = std::chrono::steady_clock::time_point;

    void call(request &r, const bus_method &method, const std::string &arguments, time_point began,
              json::writer &to, const char *name);
    bool call_each(request &r, json::view elements, json::writer &results);
    void all_served() { is_silent_ = false; }

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

    subscriptions::iterator find(std::string_view object, bool from_cloud);
    void subscribe(request &r, std::string_view object);
    void unsubscribe(request &r, std::string_view object);
    void pass_on(const subscription &from, std::string_view method, blob_attr *message);

    connection &link_;
    const link_state &state_;
    platform::object_watch &objects_;
    callback<void(std::string)> notify_cloud_;  ///< empty at the end
    subscriptions subscriptions_;               ///< the newest first
    bool is_silent_ = false;                    ///< an object has not answered
    next_round served_{bind<&bus_bridge::all_served>(*this)};
};

}  // namespace arvok::gateway
