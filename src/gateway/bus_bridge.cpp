#include "gateway/bus_bridge.h"

#include <algorithm>
#include <utility>

#include "base/bus_message.h"
#include "base/log.h"

namespace arvok::gateway {
namespace {

constexpr std::size_t subscriptions_max =
    256;  // more than a bus has objects; each is a record in the bus daemon, too
constexpr std::size_t blob_per_text = 8;      // bytes of a bus message for one of its text: it takes no more
constexpr std::size_t object_name_max = 127;  // a longer name is known by what there is of it

}  // namespace

// --- ubus_call ---

// The sender of a message whose calls take their time has no further one read meanwhile.
bool bus_bridge::handle_call(request &r) {
    if (!r.has_envelope())
        return false;
    std::optional<bus_calls::result> done = (r.from_cloud ? cloud_calls_ : link_calls_).begin(r);
    r.is_answered_later = !done;
    if (done) {
        r.reply = std::move(done->reply);
        return done->consumed;
    }
    if (!r.from_cloud)
        link_.hold();
    return false;
}

void bus_bridge::answer_link(bus_calls::result done) {
    if (done.consumed) {
        link_.acknowledged();
        link_.send(std::move(done.reply));
    }
    link_.release();
}

void bus_bridge::answer_cloud(bus_calls::result done) {
    cloud_.answer(std::move(done.reply));
}

// --- ubus_subscribe ---

bool bus_bridge::handle_subscribe(request &r) {
    if (!r.has_envelope())
        return false;
    const std::optional<std::string_view> object = r.root["object"].text();
    if (!object) {
        log_printf("[ERROR] invalid object\n");
        return false;
    }
    const std::optional<int> enable = r.root["enable"].integer();
    if (!enable) {
        log_printf("[ERROR] invalid enable\n");
        return false;
    }
    log_printf("[DEBUG] arvok_ubus_subscribe '%s' '%s' '%d' \n", r.from_cloud ? "cloud" : "arvok",
               object->data(), *enable);
    if (*enable == 0)
        unsubscribe(r, *object);
    else
        subscribe(r, *object);
    r.acknowledge();
    return true;
}

// The subscription of that object for the gateway or for the cloud.
bus_bridge::subscriptions::iterator bus_bridge::find(std::string_view object, bool from_cloud) {
    const std::string_view stored = cut(object, object_name_max);
    return std::find_if(subscriptions_.begin(), subscriptions_.end(), [&](const subscription &s) {
        return s.from_cloud == from_cloud && s.object == stored;
    });
}

void bus_bridge::subscribe(request &r, std::string_view object) {
    if (find(object, r.from_cloud) != subscriptions_.end())
        return r.fail(invalid_parameter, "object '%s' is subscribed", object.data());
    if (subscriptions_.size() >= subscriptions_max)
        return r.fail(invalid_parameter, "too many");
    const std::string name(object);
    if (!subscriptions_.emplace_front(*this, name, r.from_cloud).bus.start()) {
        r.fail(platform_failed, "qzcap_ubus_subscribe failed: %s", name.c_str());
        subscriptions_.pop_front();
    }
}

// The subscription lives until the bus has let go of it: it may still be notified meanwhile.
void bus_bridge::unsubscribe(request &r, std::string_view object) {
    const auto found = find(object, r.from_cloud);
    if (found == subscriptions_.end())
        return r.fail(invalid_parameter, "object '%s' is not subscribed", object.data());
    subscriptions ending;
    ending.splice(ending.begin(), subscriptions_, found);
    if (!found->bus.stop(platform::object_id(found->object)))
        r.fail(platform_failed, "qzcap_ubus_subscribe failed: %s", found->object.c_str());
}

bus_bridge::~bus_bridge() {
    cloud_ = {};
    bus_.close();
}

bus_bridge::subscription::subscription(bus_bridge &b, const std::string &name, bool cloud)
    : bridge(b),
      object(cut(name, object_name_max)),
      from_cloud(cloud),
      bus(b.objects_, b.bus_, name, bind<&subscription::notified>(*this)) {}

int bus_bridge::subscription::notified(std::string_view method, blob_attr *message) {
    if (!message) {
        log_printf("[WARNING] arvok_ubus_subscribe_cb: message is null\n");
        return -1;
    }
    bridge.pass_on(*this, method, message);
    return 0;
}

void bus_bridge::pass_on(const subscription &from, std::string_view method, blob_attr *message) {
    // In the middle of a key negotiation it would go out in clear and end the connection.
    if (from.from_cloud ? !cloud_.notify : !state_.linked)
        return;
    if (!from.from_cloud && !link_.expects(blobmsg_data_len(message) / blob_per_text))
        return;
    gateway::message notification = link_.new_message("ubus_notify");
    write_message(notification.body.text("object", from.object).text("method", method), "data", message);
    if (from.from_cloud)
        cloud_.notify(notification.body.take().take());
    else if (!notification.body.is_too_long() || link_.expects(json::text_max + 1))
        link_.post(std::move(notification));
}

}  // namespace arvok::gateway
