#include "bus_object.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

#include "hex.h"
#include "json.h"

extern "C" {
#include <libubox/blobmsg.h>
}

namespace arvok::lab {
namespace {

constexpr int default_timeout = 5000;
constexpr int longest_wait = 3600000;
constexpr int most_copies = 10000;
constexpr std::size_t most_pending = 1000;

// What the methods take, as `ubus -v list` shows it. `request` and `send` take any message in place of their
// options.
constexpr blobmsg_policy request_options[] = {{"message", BLOBMSG_TYPE_TABLE},
                                              {"timeout", BLOBMSG_TYPE_INT32}};
constexpr blobmsg_policy send_options[] = {{"message", BLOBMSG_TYPE_TABLE},
                                           {"split", BLOBMSG_TYPE_INT32},
                                           {"interval", BLOBMSG_TYPE_INT32},
                                           {"repeat", BLOBMSG_TYPE_INT32},
                                           {"encrypt", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy raw_arguments[] = {
    {"hex", BLOBMSG_TYPE_STRING}, {"split", BLOBMSG_TYPE_INT32}, {"interval", BLOBMSG_TYPE_INT32}};
constexpr blobmsg_policy messages_arguments[] = {{"direction", BLOBMSG_TYPE_STRING},
                                                 {"after", BLOBMSG_TYPE_INT32},
                                                 {"type", BLOBMSG_TYPE_STRING},
                                                 {"clear", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy misbehave_arguments[] = {
    {"fault", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_STRING},   {"times", BLOBMSG_TYPE_INT32},
    {"length", BLOBMSG_TYPE_INT32}, {"delay", BLOBMSG_TYPE_INT32}, {"after", BLOBMSG_TYPE_INT32},
    {"set", BLOBMSG_TYPE_TABLE}};

// The name of a member that is not among `known`, or null.
const char *unknown_member(const cJSON *arguments, std::span<const blobmsg_policy> known) {
    for (const cJSON *member = arguments->child; member; member = member->next) {
        const auto same = [member](const blobmsg_policy &policy) {
            return !std::strcmp(policy.name, member->string);
        };
        if (std::none_of(known.begin(), known.end(), same))
            return member->string;
    }
    return nullptr;
}

// Reads an optional truth value; false when it is there and none.
bool read_bool(const cJSON *arguments, const char *name, bool &value) {
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(arguments, name);
    if (cJSON_IsBool(member))
        value = cJSON_IsTrue(member);
    return !member || cJSON_IsBool(member);
}

bool read_pace(const cJSON *arguments, Pace &pace) {
    return read_integer(arguments, "split", 1, 1 << 20, pace.split) &&
           read_integer(arguments, "interval", 0, longest_wait, pace.interval);
}

// A call gives the message itself, or it gives options with the message inside.
bool has_options(const cJSON *arguments) {
    return cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(arguments, "message")) &&
           !cJSON_GetObjectItemCaseSensitive(arguments, "type");
}

json_ptr message_of(const cJSON *arguments) {
    json_ptr message(cJSON_Duplicate(
        has_options(arguments) ? cJSON_GetObjectItemCaseSensitive(arguments, "message") : arguments, 1));
    const cJSON *sequence = cJSON_GetObjectItemCaseSensitive(message.get(), "sequence");
    if (!string_member(message.get(), "type") || (sequence && !cJSON_IsNumber(sequence)))
        return nullptr;
    return message;
}

}  // namespace

template <int (BusObject::*Method)(ubus_request_data *, const cJSON *)>
int BusObject::entry(ubus_context *, ubus_object *object, ubus_request_data *request, const char *,
                     blob_attr *message) {
    const json_ptr arguments = from_bus(message);
    if (!arguments)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return (static_cast<Object *>(object)->owner->*Method)(request, arguments.get());
}

const ubus_method BusObject::methods[] = {
    UBUS_METHOD("request", entry<&BusObject::request>, request_options),
    UBUS_METHOD("send", entry<&BusObject::send>, send_options),
    UBUS_METHOD("raw", entry<&BusObject::raw>, raw_arguments),
    UBUS_METHOD("messages", entry<&BusObject::messages>, messages_arguments),
    UBUS_METHOD_NOARG("peer", entry<&BusObject::peer>),
    UBUS_METHOD("misbehave", entry<&BusObject::misbehave>, misbehave_arguments),
};

BusObject::BusObject(ubus_context *bus, Gateway &gateway, Traffic &traffic, Faults &faults)
    : bus_(bus), gateway_(gateway), traffic_(traffic), faults_(faults) {
    object_.owner = this;
    object_.name = "lab.gateway";
    object_.type = &type;
    object_.methods = methods;
    object_.n_methods = std::size(methods);
    gateway_.on_reply = [this](int connection, const cJSON *message) { replied(connection, message); };
    gateway_.on_ended = [this](int connection) {
        for (auto pending = pending_.begin(); pending != pending_.end();) {
            const auto next = std::next(pending);
            if (pending->sent.connection == connection)
                finish(pending, UBUS_STATUS_NOT_FOUND);
            pending = next;
        }
    };
}

BusObject::~BusObject() {
    traffic_.publish(nullptr, nullptr);
    gateway_.on_reply = [](int, const cJSON *) {};
    gateway_.on_ended = [](int) {};
    blob_buf_free(&buffer_);
}

int BusObject::publish() {
    traffic_.publish(bus_, &object_);
    return ubus_add_object(bus_, &object_);
}

int BusObject::request(ubus_request_data *request, const cJSON *arguments) {
    int timeout = default_timeout;
    if (has_options(arguments)) {
        if (const char *name = unknown_member(arguments, request_options))
            return invalid(std::string("request: unknown option \"") + name + "\"");
        if (!read_integer(arguments, "timeout", 1, longest_wait, timeout))
            return invalid("request: \"timeout\" is a number of milliseconds");
    }
    json_ptr message = message_of(arguments);
    if (!message)
        return invalid("request: a message has a \"type\", and its \"sequence\" is a number");
    if (pending_.size() >= most_pending)
        return UBUS_STATUS_NO_MEMORY;

    const auto pending = pending_.emplace(pending_.end());
    const std::optional<Sent> sent = gateway_.send(std::move(message), {});
    if (!sent) {
        pending_.erase(pending);
        traffic_.event(0, "request: nobody is connected");
        return UBUS_STATUS_NOT_FOUND;
    }
    pending->sent = *sent;
    pending->timeout = std::make_unique<Timer>([this, pending] {
        traffic_.event(pending->sent.connection, "request: no reply");
        finish(pending, UBUS_STATUS_TIMEOUT);
    });
    pending->timeout->set(timeout);
    ubus_defer_request(bus_, request, &pending->request);
    return UBUS_STATUS_OK;
}

int BusObject::send(ubus_request_data *request, const cJSON *arguments) {
    SendOptions options;
    if (has_options(arguments)) {
        bool encrypt = gateway_.keyed();
        if (const char *name = unknown_member(arguments, send_options))
            return invalid(std::string("send: unknown option \"") + name + "\"");
        if (!read_pace(arguments, options.pace) ||
            !read_integer(arguments, "repeat", 1, most_copies, options.repeat) ||
            !read_bool(arguments, "encrypt", encrypt))
            return invalid(
                "send: \"split\" and \"repeat\" are numbers from 1 on, \"interval\" from 0 on, "
                "\"encrypt\" is true or false");
        if (encrypt && !gateway_.keyed())
            return invalid("send: there is no key to encrypt with");
        options.encrypt = encrypt;
    }
    json_ptr message = message_of(arguments);
    if (!message)
        return invalid("send: a message has a \"type\", and its \"sequence\" is a number");
    const std::optional<Sent> sent = gateway_.send(std::move(message), options);
    if (!sent) {
        traffic_.event(0, "send: nobody is connected");
        return UBUS_STATUS_NOT_FOUND;
    }
    const json_ptr answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "connection", sent->connection);
    cJSON_AddNumberToObject(answer.get(), "sequence", sent->sequence);
    return reply(request, answer.get());
}

int BusObject::raw(ubus_request_data *, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, raw_arguments))
        return invalid(std::string("raw: unknown argument \"") + name + "\"");
    Pace pace;
    const char *digits = string_member(arguments, "hex");
    std::optional<std::string> bytes = digits ? from_hex(digits) : std::nullopt;
    if (!bytes || bytes->empty() || !read_pace(arguments, pace))
        return invalid(
            "raw: \"hex\" is an even count of digits, \"split\" a number from 1 on, \"interval\" from 0 on");
    if (gateway_.send_raw(std::move(*bytes), pace))
        return UBUS_STATUS_OK;
    traffic_.event(0, "raw: nobody is connected");
    return UBUS_STATUS_NOT_FOUND;
}

int BusObject::messages(ubus_request_data *request, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, messages_arguments))
        return invalid(std::string("messages: unknown argument \"") + name + "\"");
    bool clear = false;
    HistoryQuery query;
    if (!read_bool(arguments, "clear", clear) ||
        !read_integer(arguments, "after", 0, INT64_C(1) << 52, query.after))
        return invalid("messages: \"clear\" is true or false, \"after\" is a number");
    for (const char *name : {"type", "direction"}) {
        const cJSON *member = cJSON_GetObjectItemCaseSensitive(arguments, name);
        if (member && !cJSON_IsString(member))
            return invalid(std::string("messages: \"") + name + "\" is a text");
    }
    if (const char *type_wanted = string_member(arguments, "type"))
        query.type = type_wanted;
    if (const char *direction = string_member(arguments, "direction")) {
        query.rx = !std::strcmp(direction, "rx") || !std::strcmp(direction, "both");
        query.tx = !std::strcmp(direction, "tx") || !std::strcmp(direction, "both");
        if (!query.rx && !query.tx)
            return invalid("messages: \"direction\" is rx, tx or both");
    }
    blob_buf_init(&buffer_, 0);
    traffic_.history(query, &buffer_);
    if (clear)
        traffic_.clear();
    return ubus_send_reply(bus_, request, buffer_.head);
}

int BusObject::peer(ubus_request_data *request, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, {}))
        return invalid(std::string("peer: unknown argument \"") + name + "\"");
    const json_ptr description = gateway_.describe();
    cJSON_AddBoolToObject(description.get(), "subscribers", object_.has_subscribers);
    return reply(request, description.get());
}

int BusObject::misbehave(ubus_request_data *, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, misbehave_arguments))
        return invalid(std::string("misbehave: unknown argument \"") + name + "\"");
    const std::string wrong = faults_.arm(arguments);
    if (!wrong.empty())
        return invalid("misbehave: " + wrong);
    traffic_.event(0, "misbehave: " + faults_.describe());
    return gateway_.update_listening() ? UBUS_STATUS_OK : UBUS_STATUS_SYSTEM_ERROR;
}

int BusObject::invalid(const std::string &why) {
    traffic_.event(0, why);
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int BusObject::reply(ubus_request_data *request, const cJSON *object) {
    blob_buf_init(&buffer_, 0);
    if (!add_to_bus(&buffer_, object))
        return UBUS_STATUS_UNKNOWN_ERROR;
    return ubus_send_reply(bus_, request, buffer_.head);
}

void BusObject::replied(int connection, const cJSON *message) {
    const cJSON *sequence = cJSON_GetObjectItemCaseSensitive(message, "sequence");
    if (!cJSON_IsNumber(sequence))
        return;
    for (auto pending = pending_.begin(); pending != pending_.end(); ++pending) {
        if (pending->sent.connection != connection || pending->sent.sequence != sequence->valuedouble)
            continue;
        finish(pending, reply(&pending->request, message));
        return;
    }
}

void BusObject::finish(std::list<Pending>::iterator pending, int status) {
    ubus_complete_deferred_request(bus_, &pending->request, status);
    pending_.erase(pending);
}

ubus_object_type BusObject::type = UBUS_OBJECT_TYPE("lab.gateway", BusObject::methods);

}  // namespace arvok::lab
