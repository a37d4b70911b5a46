#include "requests.h"

#include <algorithm>
#include <iterator>
#include <optional>

#include "protocol.h"

namespace arvok {

namespace {

/// The status that ends a request, or nothing when the answer comes from elsewhere or none is due.
using Outcome = std::optional<int>;

constexpr std::nullopt_t NO_ANSWER = std::nullopt;

struct Request {
    Bus &bus;
    Client &client;
    const Message &message;

    const blob_attr *attribute(int id) const { return message.attributes[static_cast<size_t>(id)]; }

    bool no_reply() const {
        const blob_attr *flag = attribute(UBUS_ATTR_NO_REPLY);
        return flag && blob_get_u8(flag) != 0;
    }

    /// An answer to this request that does not end it.
    void send_data(const FrameBuilder &builder) const {
        client.send(builder.finish(UBUS_MSG_DATA, message.seq, message.peer));
    }
};

void put_object(FrameBuilder &builder, const Object &object) {
    builder.put(UBUS_ATTR_OBJPATH, object.path);
    builder.put(UBUS_ATTR_OBJID, object.id);
    builder.put(UBUS_ATTR_OBJTYPE, object.type->id);
    builder.put_bytes(UBUS_ATTR_SIGNATURE, object.type->signature);
}

Outcome ping(const Request &request) {
    request.send_data(FrameBuilder());
    return UBUS_STATUS_OK;
}

Outcome look_up(const Request &request) {
    const blob_attr *path = request.attribute(UBUS_ATTR_OBJPATH);
    if (path && *text_of(path) == '\0')
        return UBUS_STATUS_INVALID_ARGUMENT;
    const std::vector<const Object *> found = request.bus.lookup(path ? text_of(path) : "*");

    for (const Object *object : found) {
        FrameBuilder builder;
        put_object(builder, *object);
        request.send_data(builder);
    }
    return path && found.empty() ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_OK;
}

/* Calls */

// Hands a call to the owner of an object. A bus status: not found when the owner is going, invalid argument
// when the call does not fit into a message.
int call_object(const Request &request, const Object &object, bool no_reply) {
    Client *owner = request.bus.find_client(object.owner);
    if (!owner || owner->over())
        return UBUS_STATUS_NOT_FOUND;  // before a large frame is built for nobody, perhaps thousands of times
    FrameBuilder builder;

    builder.put(UBUS_ATTR_OBJID, object.id);
    builder.put_content(UBUS_ATTR_METHOD, request.attribute(UBUS_ATTR_METHOD));
    if (no_reply)
        builder.put_flag(UBUS_ATTR_NO_REPLY, true);
    builder.put(UBUS_ATTR_USER, request.client.user);
    builder.put(UBUS_ATTR_GROUP, request.client.group);
    builder.put_content(UBUS_ATTR_DATA, request.attribute(UBUS_ATTR_DATA));
    const Frame frame = builder.finish(UBUS_MSG_INVOKE, request.message.seq, request.client.id);
    if (!frame)
        return UBUS_STATUS_INVALID_ARGUMENT;
    owner->send(frame);
    return UBUS_STATUS_OK;
}

// The arguments of a call to the daemon's own object, which must all be there.
template <std::size_t N>
bool read_arguments(const Request &request, const blobmsg_policy (&policy)[N], blob_attr *(&arguments)[N]) {
    if (const blob_attr *data = request.attribute(UBUS_ATTR_DATA))
        blobmsg_parse(policy, N, arguments, blob_data(data), static_cast<unsigned int>(blob_len(data)));
    return std::find(std::begin(arguments), std::end(arguments), nullptr) == std::end(arguments);
}

int register_pattern(const Request &request) {
    static const blobmsg_policy policy[] = {
        {.name = "object", .type = BLOBMSG_TYPE_INT32},
        {.name = "pattern", .type = BLOBMSG_TYPE_STRING},
    };
    blob_attr *arguments[std::size(policy)] = {};
    if (!read_arguments(request, policy, arguments))
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *object = request.bus.find_object(blobmsg_get_u32(arguments[0]));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != request.client.id)
        return UBUS_STATUS_PERMISSION_DENIED;

    EventPattern pattern{.text = blobmsg_get_string(arguments[1]), .prefix = false};
    if (!pattern.text.empty() && pattern.text.back() == '*') {
        pattern.text.pop_back();
        pattern.prefix = true;
    }
    const auto same = [&pattern](const EventPattern &known) {
        return known.text == pattern.text && known.prefix == pattern.prefix;
    };
    if (std::none_of(object->patterns.begin(), object->patterns.end(), same))
        object->patterns.push_back(std::move(pattern));
    return UBUS_STATUS_OK;
}

int send_event(const Request &request) {
    static const blobmsg_policy policy[] = {
        {.name = "id", .type = BLOBMSG_TYPE_STRING},
        {.name = "data", .type = BLOBMSG_TYPE_TABLE},
    };
    blob_attr *arguments[std::size(policy)] = {};
    if (!read_arguments(request, policy, arguments))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const std::string name = blobmsg_get_string(arguments[0]);
    // These are the daemon's own.
    if (name.starts_with("ubus."))
        return UBUS_STATUS_PERMISSION_DENIED;

    blob_buf content{};
    const bool copied = blob_buf_init(&content, 0) == 0 &&
                        (blobmsg_data_len(arguments[1]) == 0 ||
                         blob_put_raw(&content, blobmsg_data(arguments[1]),
                                      static_cast<unsigned int>(blobmsg_data_len(arguments[1]))));
    if (copied)
        request.bus.send_event(request.client.id, name, content.head);
    blob_buf_free(&content);
    return copied ? UBUS_STATUS_OK : STATUS_NO_MEMORY;
}

int call_event_object(const Request &request, std::string_view method) {
    if (method == "register")
        return register_pattern(request);
    if (method == "send")
        return send_event(request);
    return UBUS_STATUS_INVALID_COMMAND;
}

Outcome invoke(const Request &request) {
    const blob_attr *id = request.attribute(UBUS_ATTR_OBJID);
    const blob_attr *method = request.attribute(UBUS_ATTR_METHOD);

    if (!id || !method)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (blob_get_u32(id) == UBUS_SYSTEM_OBJECT_EVENT) {
        const int status = call_event_object(request, text_of(method));
        return request.no_reply() ? NO_ANSWER : Outcome(status);
    }
    const Object *object = request.bus.find_object(blob_get_u32(id));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    const int status = call_object(request, *object, request.no_reply());
    return status == UBUS_STATUS_OK ? NO_ANSWER : Outcome(status);
}

// Data or the status of a call, from the one that was called to the one that has called.
Outcome answer(const Request &request) {
    const Message &message = request.message;
    const bool last = message.type == UBUS_MSG_STATUS;
    Object *object = request.bus.find_own_object(request.client, request.attribute(UBUS_ATTR_OBJID));

    if (!object || !request.attribute(last ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA))
        return NO_ANSWER;
    if (Client *caller = request.bus.find_client(message.peer))
        caller->send(forward(message, object->id));
    return NO_ANSWER;
}

/* Objects */

bool is_signature(const blob_attr *signature) {
    const blob_attr *method;
    size_t rem;

    blob_for_each_attr(method, signature, rem) {
        if (!blobmsg_check_attr_len(method, true, rem) || blobmsg_type(method) != BLOBMSG_TYPE_TABLE)
            return false;
    }
    return rem == 0;
}

Outcome add_object(const Request &request) {
    const blob_attr *path = request.attribute(UBUS_ATTR_OBJPATH);
    const blob_attr *type_id = request.attribute(UBUS_ATTR_OBJTYPE);
    const blob_attr *signature = request.attribute(UBUS_ATTR_SIGNATURE);
    std::shared_ptr<ObjectType> type;

    if (type_id) {
        type = request.bus.find_type(blob_get_u32(type_id));
    } else if (signature && is_signature(signature)) {
        const auto *begin = static_cast<const uint8_t *>(blob_data(signature));
        type = request.bus.add_type({begin, begin + blob_len(signature)});
    }
    if (!type != !path || (path && *text_of(path) == '\0'))
        return UBUS_STATUS_INVALID_ARGUMENT;

    // What does not fit into an answer can never be looked up.
    if (path) {
        const Object draft{.id = 0,
                           .owner = 0,
                           .path = text_of(path),
                           .type = type,
                           .subscribers = {},
                           .targets = {},
                           .patterns = {}};
        FrameBuilder builder;
        put_object(builder, draft);
        if (!builder.finish(UBUS_MSG_DATA, 0, 0))
            return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const Object *object = request.bus.add_object(request.client, path ? text_of(path) : "", std::move(type));
    if (!object)
        return UBUS_STATUS_INVALID_ARGUMENT;
    FrameBuilder builder;
    builder.put(UBUS_ATTR_OBJID, object->id);
    if (object->type)
        builder.put(UBUS_ATTR_OBJTYPE, object->type->id);
    request.send_data(builder);
    return UBUS_STATUS_OK;
}

Outcome remove_object(const Request &request) {
    if (!request.attribute(UBUS_ATTR_OBJID))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const Object *object = request.bus.find_own_object(request.client, request.attribute(UBUS_ATTR_OBJID));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    FrameBuilder builder;
    builder.put(UBUS_ATTR_OBJID, object->id);
    // The type goes with its last object; its owner must send the signature again.
    if (object->type && object->type.use_count() == 1)
        builder.put(UBUS_ATTR_OBJTYPE, object->type->id);
    request.send_data(builder);
    request.bus.remove_object(object->id);
    return UBUS_STATUS_OK;
}

/* Subscriptions */

Outcome subscription(const Request &request) {
    const blob_attr *target_id = request.attribute(UBUS_ATTR_TARGET);
    Object *subscriber = request.bus.find_own_object(request.client, request.attribute(UBUS_ATTR_OBJID));

    if (!subscriber || !target_id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *target = request.bus.find_object(blob_get_u32(target_id));
    if (!target)
        return UBUS_STATUS_NOT_FOUND;
    if (request.message.type == UBUS_MSG_UNSUBSCRIBE)
        return request.bus.unsubscribe(*subscriber, *target) ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
    if (target->owner == request.client.id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    request.bus.subscribe(*subscriber, *target);
    return UBUS_STATUS_OK;
}

// With answers awaited, the notifier first learns whose.
void name_subscribers(const Request &request, const Object &object) {
    FrameBuilder builder;

    builder.put(UBUS_ATTR_OBJID, object.id);
    void *list = blob_nest_start(builder.buffer(), UBUS_ATTR_SUBSCRIBERS);
    for (uint32_t subscriber : object.subscribers)
        blob_put_int32(builder.buffer(), 0, subscriber);
    blob_nest_end(builder.buffer(), list);
    builder.put(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
    request.client.send(builder.finish(UBUS_MSG_STATUS, request.message.seq, request.message.peer));
}

Outcome notify(const Request &request) {
    const blob_attr *id = request.attribute(UBUS_ATTR_OBJID);

    if (!id || !request.attribute(UBUS_ATTR_METHOD))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const Object *object = request.bus.find_object(blob_get_u32(id));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != request.client.id)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (!request.no_reply())
        name_subscribers(request, *object);
    // The latest first.
    for (auto id_of = object->subscribers.rbegin(); id_of != object->subscribers.rend(); ++id_of)
        if (const Object *subscriber = request.bus.find_object(*id_of))
            call_object(request, *subscriber, request.no_reply());
    return NO_ANSWER;
}

struct Row {
    uint8_t type;
    Outcome (*handler)(const Request &request);
};

constexpr Row ROWS[] = {
    {UBUS_MSG_STATUS, answer},
    {UBUS_MSG_DATA, answer},
    {UBUS_MSG_PING, ping},
    {UBUS_MSG_LOOKUP, look_up},
    {UBUS_MSG_INVOKE, invoke},
    {UBUS_MSG_ADD_OBJECT, add_object},
    {UBUS_MSG_REMOVE_OBJECT, remove_object},
    {UBUS_MSG_SUBSCRIBE, subscription},
    {UBUS_MSG_UNSUBSCRIBE, subscription},
    {UBUS_MSG_NOTIFY, notify},
};

}  // namespace

void handle_message(Bus &bus, Client &client, const Message &message) {
    const auto row = std::find_if(std::begin(ROWS), std::end(ROWS),
                                  [&message](const Row &known) { return known.type == message.type; });
    const Outcome outcome = row == std::end(ROWS) ? Outcome(UBUS_STATUS_INVALID_COMMAND)
                                                  : row->handler(Request{bus, client, message});
    if (outcome)
        client.send(status_frame(message.seq, message.peer, *outcome));
}

}  // namespace arvok
