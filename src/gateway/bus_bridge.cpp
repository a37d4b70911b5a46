#include "gateway/bus_bridge.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/bus_message.h"
#include "base/held_signals.h"
#include "base/log.h"

namespace arvok::gateway {
namespace {

// Everybody else waits meanwhile. So the calls of a message have so much time together, and behind one that
// is not answered none is made until everybody has had their turn. Most objects answer within a millisecond.
constexpr std::chrono::milliseconds calls_time_max{800};
// After so much of it none is begun: a list of hosts takes some tens of milliseconds, and a request can name
// it almost two hundred times, as can the platform's next one.
constexpr std::chrono::milliseconds list_time_max{400};
constexpr char no_time_left[] = "no time left";

// Bytes of a list's results, so that there is room for all that a request can repeat in its reply, escaped.
constexpr std::size_t results_max = json::text_max - 8 * body_max;
constexpr std::size_t subscriptions_max =
    256;  // more than a bus has objects; each is a record in the bus daemon, too
constexpr std::size_t blob_per_text = 8;      // bytes of a bus message for one of its text: it takes no more
constexpr std::size_t object_name_max = 127;  // a longer name is known by what there is of it

using bus_answer = handle<blob_attr, &qzcap_free>;

// --- ubus_call ---

// The method that a request or an element of its list names; nothing after a log line.
std::optional<bus_method> method_of(json::view element) {
    const std::optional<std::string_view> object = element["object"].text();
    if (!object) {
        log_printf("[ERROR] invalid object\n");
        return std::nullopt;
    }
    const std::optional<std::string_view> name = element["method"].text();
    if (!name) {
        log_printf("[ERROR] invalid method\n");
        return std::nullopt;
    }
    return bus_method{std::string(*object), std::string(*name)};
}

// Adds a message as the member of that name; false when it cannot be rendered.
bool add_message(json::writer &to, const char *name, blob_attr *message) {
    const json::writer::position before = to.here();
    if (!write_members(to.open_object(name), message)) {
        to.back_to(before);
        return false;
    }
    to.close();
    return true;
}

std::chrono::milliseconds since(std::chrono::steady_clock::time_point began) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
}

json::object result_reply(const request &r) {
    json::object reply = r.reply_of("ubus_result");
    reply.number("errcode", r.errcode()).text("errmsg", r.errmsg());
    return reply;
}

}  // namespace

// One call of a message that began then; `arguments` is an object. Adds its answer as the member of that
// name, or nothing with the error recorded.
void bus_bridge::call(request &r, const bus_method &method, const std::string &arguments, time_point began,
                      json::writer &to, const char *name) {
    const std::uint32_t object = platform::object_id(method.object);
    if (object == 0)
        return r.fail(platform_failed, "qzcap_get_objid_by_name failed: %s", method.object.c_str());
    bus_message message;
    if (!message.add_json(arguments))
        return r.fail(platform_failed, "blobmsg_add_json_from_string failed");
    blob_attr *collected = nullptr;
    const auto time_left = std::max(calls_time_max - since(began), std::chrono::milliseconds(1));
    const int status = is_silent_ ? UBUS_STATUS_TIMEOUT
                                  : platform::invoke(object, method.name, message.get(), qzcap_data_blob_cb,
                                                     &collected, static_cast<int>(time_left.count()));
    const bus_answer answer(collected);
    if (status == UBUS_STATUS_TIMEOUT && !std::exchange(is_silent_, true))
        served_.arm();
    if (status != UBUS_STATUS_OK)
        return r.fail(platform_failed, "ubus_invoke failed: %s", ubus_strerror(status));
    if (!add_message(to, name, answer.get()))
        r.fail(platform_failed, "blobmsg_format_json failed");
}

// Runs the elements in their order and adds their results, until there is no more room or time: the others
// are not called. False at the first invalid one: what was called before stays called, and nobody is told.
// Also when the process is to end: each call may take its whole time.
bool bus_bridge::call_each(request &r, json::view elements, json::writer &results) {
    const time_point began = std::chrono::steady_clock::now();
    bool is_full = false;
    for (const json::view element : elements) {
        if (is_ending())
            return false;
        const std::optional<bus_method> method = method_of(element);
        if (!method)
            return false;
        const json::view message = element["message"];
        if (!message.is_object()) {
            log_printf("[ERROR] invalid message\n");
            return false;
        }
        results.open_object().text("object", method->object).text("method", method->name);
        if (is_full) {
            r.fail(platform_failed, too_long);
        } else if (!is_silent_ && since(began) >= list_time_max) {
            r.fail(platform_failed, no_time_left);
        } else {
            const json::writer::position before = results.here();
            call(r, *method, message.print(), began, results, "message");
            if (results.is_too_long() || results.here().size > results_max) {
                results.back_to(before);
                r.fail(platform_failed, too_long);
                is_full = true;
            }
        }
        results.close();
    }
    return true;
}

bool bus_bridge::handle_call(request &r) {
    if (!r.has_envelope())
        return false;
    const json::view data = r.root["data"];
    if (data.is_array()) {
        json::object reply;
        if (!call_each(r, data, reply.open_array("data")))
            return false;
        reply.close();
        json::object envelope = result_reply(r);
        reply.begin_with(envelope);
        r.reply = reply.take();
        return true;
    }
    const std::optional<bus_method> method = method_of(r.root);
    if (!method)
        return false;
    const json::view message = r.root["message"];
    json::object reply;
    call(r, *method, message.is_object() ? message.print() : "{}", std::chrono::steady_clock::now(), reply,
         "data");
    const auto envelope = [&] {
        json::object begun = result_reply(r);
        begun.text("object", method->object).text("method", method->name);
        return begun;
    };
    json::object begun = envelope();
    reply.begin_with(begun);
    r.reply = reply.take();
    if (!r.reply) {
        r.fail(platform_failed, too_long);
        r.reply = envelope().take();
    }
    return true;
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

// The subscription lives until the platform has let go of it: it may still be notified meanwhile.
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
    notify_cloud_ = {};
    for (subscription &s : subscriptions_)
        s.bus.stop(platform::object_id(s.object));
}

bus_bridge::subscription::subscription(bus_bridge &b, const std::string &name, bool cloud)
    : bridge(b),
      object(cut(name, object_name_max)),
      from_cloud(cloud),
      bus(b.objects_, name, bind<&subscription::notified>(*this)) {}

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
    if (from.from_cloud ? !notify_cloud_ : !state_.linked)
        return;
    if (!from.from_cloud && !link_.expects(blobmsg_data_len(message) / blob_per_text))
        return;
    gateway::message notification = link_.new_message("ubus_notify");
    add_message(notification.body.text("object", from.object).text("method", method), "data", message);
    if (from.from_cloud)
        notify_cloud_(notification.body.take().take());
    else if (!notification.body.is_too_long() || link_.expects(json::text_max + 1))
        link_.post(std::move(notification));
}

}  // namespace arvok::gateway
