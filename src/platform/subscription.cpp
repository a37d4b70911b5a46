#include "platform/subscription.h"

#include <utility>

#include "base/held_signals.h"
#include "base/log.h"

extern "C" {
#include <libubox/list.h>
}

namespace arvok::platform {
namespace {

// A daemon announces its objects one after the other.
constexpr int burst_ms = 250;
constexpr int longest_pause_ms = 64000;

}  // namespace

// --- the watch ---

object_watch::object_watch() : announcements_(*this), look_(bind<&object_watch::look>(*this)) {
    announcements_.cb = [](ubus_context *, ubus_event_handler *handler, const char *, blob_attr *) {
        owner_of<object_watch>(handler).look_soon();
    };
    const int status =
        ubus_register_event_handler(qzcap_get_ubus_context(), &announcements_, "ubus.object.add");
    if (status != UBUS_STATUS_OK)
        log_printf("[ERROR] ubus_register_event_handler failed: %s\n", ubus_strerror(status));
}

object_watch::~object_watch() {
    ubus_unregister_event_handler(qzcap_get_ubus_context(), &announcements_);
}

// Callbacks of the bus come here, also out of a call that waits for its answer: the work is the loop's.
void object_watch::look_soon() {
    pause_ms_ = burst_ms;
    if (!look_.is_armed() || look_.remaining() > burst_ms)
        look_.arm(burst_ms);
}

void object_watch::look() {
    bool done = true;
    for (std::size_t i = 0; i < subscriptions_.size() && !is_ending(); ++i)
        done = subscriptions_[i]->renew() && done;
    if (done || pause_ms_ >= longest_pause_ms || look_.is_armed())
        return;
    pause_ms_ *= 2;
    look_.arm(pause_ms_);
}

// --- a subscription ---

subscription::subscription(object_watch &watch, bus_object object, handler notified, catch_up returned)
    : watch_(watch),
      object_(std::move(object)),
      notified_(notified),
      returned_(returned),
      subscriber_(*this) {
    subscriber_.cb = [](ubus_context *, ubus_object *from, ubus_request_data *, const char *method,
                        blob_attr *message) {
        subscription &to = owner_of<subscription>(container_of(from, ubus_subscriber, obj));
        return to.notified_(method ? method : "", message);
    };
    subscriber_.remove_cb = [](ubus_context *, ubus_subscriber *from, std::uint32_t id) {
        owner_of<subscription>(from).gone(id);
    };
    watch_.subscriptions_.push_back(this);
}

subscription::subscription(object_watch &watch, own_connection &own, bus_object object, handler notified)
    : subscription(watch, std::move(object), notified) {
    own_ = &own;
}

subscription::~subscription() {
    if (started_)
        stop(0);
    std::erase(watch_.subscriptions_, this);
}

bool subscription::start() {
    started_ = true;
    const bool there = subscribe(object_.id());
    if (!there)
        watch_.look_soon();
    return there;
}

bool subscription::stop(std::uint32_t object) {
    started_ = false;
    subscribed_id_ = 0;
    return unsubscribe(object);
}

// The object may leave while it is being subscribed to.
bool subscription::subscribe(std::uint32_t id) {
    const daemon_wait wait;
    subscribed_id_ = id;
    registered_ = own_ ? own_->subscribe(subscriber_, id) : qzcap_ubus_subscribe(&subscriber_, id) >= 0;
    if (!registered_)
        subscribed_id_ = 0;
    return subscribed_id_ != 0;
}

// A library may not bear to be handed what it never had.
bool subscription::unsubscribe(std::uint32_t id) {
    const daemon_wait wait;
    if (!std::exchange(registered_, false))
        return false;
    return own_ ? own_->unsubscribe(subscriber_, id) : qzcap_ubus_unsubscribe(&subscriber_, id) >= 0;
}

// An old id's news may be late.
void subscription::gone(std::uint32_t id) {
    if (id != subscribed_id_)
        return;
    subscribed_id_ = 0;
    watch_.look_soon();
}

// False when there is something left to do.
bool subscription::renew() {
    if (!started_)
        return true;
    // The bus drops the news that the object went when too much waits to be read.
    const std::uint32_t id = object_.id();
    if (id != subscribed_id_)
        subscribed_id_ = 0;
    if (subscribed_id_ == 0) {
        // What the connection has kept of it goes first: a subscriber must not be registered twice.
        unsubscribe(id);
        if (id == 0 || !subscribe(id))
            return false;
        behind_ = static_cast<bool>(returned_);
    }
    if (behind_ && returned_())
        behind_ = false;
    return !behind_;
}

}  // namespace arvok::platform
