// "ubus_call" and "ubus_subscribe": the platform's bus, for whoever may ask the device for its status.

#include <algorithm>
#include <cstddef>

#include "arvok_client/handlers.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

constexpr int call_timeout_ms = 20000;

using answer_ptr = handle<blob_attr, &qzcap_free>;

// A notification comes with the bus object of its subscriber, which begins the subscription.
static_assert(offsetof(bus_subscription, subscriber) == 0 && offsetof(ubus_subscriber, obj) == 0);

// --- ubus_call ---

struct bus_method {
    const char *object;
    const char *name;
};

// The method that a request or an element of its list names; false after a log line.
bool method_of(const cJSON *element, bus_method &method) {
    method = {json_text(element, "object"), json_text(element, "method")};
    if (!method.object) {
        qzcap_printf("[ERROR] invalid object\n");
        return false;
    }
    if (!method.name) {
        qzcap_printf("[ERROR] invalid method\n");
        return false;
    }
    return true;
}

// Runs the elements in their order into `results`. False at the first invalid one: what was called before
// stays called, and nobody is told. False also when the process is to end: each call may take its whole time.
bool call_list(const cJSON *elements, cJSON *results) {
    for (const cJSON *element = elements->child; element; element = element->next) {
        bus_method method;
        if (uloop_cancelling() || !method_of(element, method))
            return false;
        const cJSON *message = json_member(element, "message");
        if (!cJSON_IsObject(message)) {
            qzcap_printf("[ERROR] invalid message\n");
            return false;
        }
        json_object result;
        result.text("object", method.object)
            .text("method", method.name)
            .add("message", arvok_bus_call(method.object, method.name, message));
        json_append(results, result.take());
    }
    return true;
}

json_object result_reply(const cJSON *root) {
    json_object reply = reply_to(root, "ubus_result");
    reply.number("errcode", ec->errcode).text("errmsg", ec->errmsg);
    return reply;
}

// --- ubus_subscribe ---

// The subscription of that object for the gateway or for the cloud. A name that was too long to be stored
// whole is known by what there is of it.
auto find_subscription(const char *object, std::int32_t from_cloud) {
    char stored[sizeof bus_subscription::object] = "";
    _strlcpy(stored, object, sizeof stored);
    auto &list = ec->bus_subscriptions;
    return std::find_if(list.begin(), list.end(), [&](const bus_subscription &node) {
        return node.from_cloud == from_cloud && _strcmp(node.object, stored) == 0;
    });
}

void subscribe(const char *object, std::int32_t from_cloud) {
    auto &list = ec->bus_subscriptions;
    if (find_subscription(object, from_cloud) != list.end())
        return arvok_set_error(err_invalid_parameter, "object '%s' is subscribed", object);
    bus_subscription &node = list.emplace_front();
    node.subscriber.cb = arvok_ubus_subscribe_cb;
    _strlcpy(node.object, object, sizeof node.object);
    node.from_cloud = from_cloud;
    if (qzcap_ubus_subscribe(&node.subscriber, qzcap_get_objid_by_name(object)) < 0) {
        arvok_set_error(err_platform, "qzcap_ubus_subscribe failed: %s", object);
        list.pop_front();
    }
}

// The node lives until the platform has let go of its subscriber, who may still be notified meanwhile.
void unsubscribe(const char *object, std::int32_t from_cloud) {
    auto &list = ec->bus_subscriptions;
    const auto found = find_subscription(object, from_cloud);
    if (found == list.end())
        return arvok_set_error(err_invalid_parameter, "object '%s' is not subscribed", object);
    std::list<bus_subscription> unlinked;
    unlinked.splice(unlinked.begin(), list, found);
    bus_subscription &node = unlinked.front();
    if (qzcap_ubus_unsubscribe(&node.subscriber, qzcap_get_objid_by_name(node.object)) < 0)
        arvok_set_error(err_platform, "qzcap_ubus_subscribe failed: %s", node.object);
}

}  // namespace

json_ptr arvok_bus_call(const char *object, const char *method, const cJSON *message) {
    const std::uint32_t id = qzcap_get_objid_by_name(object);
    if (id == 0) {
        arvok_set_error(err_platform, "qzcap_get_objid_by_name failed: %s", object);
        return nullptr;
    }
    blob_buf *buf = qzcap_get_blob_buf();
    blob_buf_init(buf, 0);
    const text_ptr arguments = json_print(message);
    if (!arguments || !blobmsg_add_json_from_string(buf, arguments.get())) {
        arvok_set_error(err_platform, "blobmsg_add_json_from_string failed");
        return nullptr;
    }
    blob_attr *collected = nullptr;
    const int status = ubus_invoke(qzcap_get_ubus_context(), id, method, buf->head, qzcap_data_blob_cb,
                                   &collected, call_timeout_ms);
    const answer_ptr answer(collected);
    if (status != UBUS_STATUS_OK) {
        arvok_set_error(err_platform, "ubus_invoke failed: %s", ubus_strerror(status));
        return nullptr;
    }
    const qz_text text(answer ? blobmsg_format_json_with_cb(answer.get(), true, nullptr, nullptr, -1)
                              : nullptr);
    if (!text) {
        arvok_set_error(err_platform, "blobmsg_format_json failed");
        return nullptr;
    }
    json_ptr result = json_parse(text.get());
    if (!result)
        arvok_set_error(err_platform, "cJSON_Parse failed");
    return result;
}

int arvok_ubus_call(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    const cJSON *data = json_member(root, "data");
    if (cJSON_IsArray(data)) {
        json_ptr results(cJSON_CreateArray());
        if (!call_list(data, results.get()))
            return 0;
        json_object reply = result_reply(root);
        context.reply = reply.add("data", std::move(results)).take();
        return 1;
    }
    bus_method method;
    if (!method_of(root, method))
        return 0;
    const cJSON *message = json_member(root, "message");
    const json_object none;
    json_ptr result =
        arvok_bus_call(method.object, method.name, cJSON_IsObject(message) ? message : none.get());
    json_object reply = result_reply(root);
    reply.text("object", method.object).text("method", method.name).add("data", std::move(result));
    context.reply = reply.take();
    return 1;
}

int arvok_ubus_subscribe(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    const char *object = json_text(root, "object");
    if (!object) {
        qzcap_printf("[ERROR] invalid object\n");
        return 0;
    }
    const cJSON *enable = json_member(root, "enable");
    if (!cJSON_IsNumber(enable)) {
        qzcap_printf("[ERROR] invalid enable\n");
        return 0;
    }
    qzcap_printf("[DEBUG] %s '%s' '%s' '%d' \n", "arvok_ubus_subscribe",
                 context.from_cloud ? "cloud" : "arvok", object, enable->valueint);
    if (enable->valueint == 0)
        unsubscribe(object, context.from_cloud);
    else
        subscribe(object, context.from_cloud);
    context.reply = ack_reply(root);
    return 1;
}

int arvok_ubus_subscribe_cb(ubus_context *, ubus_object *subscriber, ubus_request_data *, const char *method,
                            blob_attr *msg) {
    if (!subscriber) {
        qzcap_printf("[WARNING] %s: sub_info is null\n", "arvok_ubus_subscribe_cb");
        return -1;
    }
    if (!msg) {
        qzcap_printf("[WARNING] %s: message is null\n", "arvok_ubus_subscribe_cb");
        return -1;
    }
    const auto &node = *reinterpret_cast<const bus_subscription *>(subscriber);
    if (!node.from_cloud && !ec->linked)
        return 0;  // in the middle of a key negotiation it would go out in clear and end the connection
    const qz_text text(blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1));
    arvok_msg_ptr notification = arvok_msg_new("ubus_notify", 0);
    notification->root.text("object", node.object).text("method", method).add("data", json_parse(text.get()));
    if (!node.from_cloud) {
        arvok_post(std::move(notification));
        return 0;
    }
    const text_ptr message = json_print(notification->root.get());
    send_plugin_notification(message.get());
    return 0;
}

}  // namespace arvok
