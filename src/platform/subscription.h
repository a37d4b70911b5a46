#pragma once
/// Subscriptions to objects of the bus, which may come later, leave, and come back under another id.

extern "C" {
#include <libubus.h>
}

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/callback.h"
#include "base/loop.h"
#include "platform/own_connection.h"
#include "platform/session.h"

namespace arvok::platform {

class subscription;

/// Hears of objects that come onto the bus, and renews the subscriptions whose object was not there: one pass
/// on the loop for all that come within a quarter of a second. What fails is tried again with pauses that
/// double, for two minutes after the last object came; an object that never comes costs nothing besides.
class object_watch {
  public:
    /// On an open session, which outlives it.
    object_watch();
    /// After all subscriptions.
    ~object_watch();
    object_watch(const object_watch &) = delete;
    object_watch &operator=(const object_watch &) = delete;

  private:
    friend subscription;

    void look_soon();
    void look();

    std::vector<subscription *> subscriptions_;
    owned<ubus_event_handler, object_watch> announcements_;
    timer look_;
    int pause_ms_ = 0;  ///< before the look after the next
};

/// An object of the bus, as its subscriber knows it: by the platform's number or by its name.
class bus_object {
  public:
    bus_object(qzcap_object number) : number_(number) {}
    bus_object(std::string name) : name_(std::move(name)) {}

    /// Its id now; 0 when it is absent.
    std::uint32_t id() const { return number_ != 0 ? object_id(number_) : object_id(name_); }

  private:
    qzcap_object number_{};
    std::string name_;
};

/// Hears the notifications of one object from start() to its end, whenever the object is there.
class subscription {
  public:
    /// `method` is terminated by a zero; `message` is null when a notification has none. Answers whoever
    /// waits for one: 0, or -1 for a failure.
    using handler = callback<int(std::string_view method, blob_attr *message)>;
    /// The object is back, or there at last: what it has not notified meanwhile is to be asked for. False:
    /// it did not answer, and this is called again.
    using catch_up = callback<bool()>;

    /// On the platform library's connection.
    subscription(object_watch &watch, bus_object object, handler notified, catch_up returned = {});
    /// On that one, which outlives it, for an object that may notify more than there is time for.
    subscription(object_watch &watch, own_connection &own, bus_object object, handler notified);
    ~subscription();
    subscription(const subscription &) = delete;
    subscription &operator=(const subscription &) = delete;

    /// False when the object cannot be subscribed to now; it is as soon as it can.
    bool start();
    /// Ends it at the object that has this id now; it has none while it is away. Returns whether it
    /// was subscribed to.
    bool stop(std::uint32_t object);

  private:
    friend object_watch;

    bool subscribe(std::uint32_t id);
    bool unsubscribe(std::uint32_t id);
    void gone(std::uint32_t id);
    bool renew();

    object_watch &watch_;
    own_connection *own_ = nullptr;
    const bus_object object_;
    handler notified_;
    catch_up returned_;
    owned<ubus_subscriber, subscription> subscriber_;
    std::uint32_t subscribed_id_ = 0;  ///< 0: the object is away
    bool started_ = false;
    bool registered_ = false;  ///< the connection knows the subscriber
    bool behind_ = false;      ///< `returned` has not succeeded yet
};

}  // namespace arvok::platform
