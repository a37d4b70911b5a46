#include "bus_object.h"

#include <cstring>
#include <utility>

#include "json.h"

namespace arvok::lab {
namespace {

constexpr int default_timeout = 5000;
constexpr int most_copies = 10000;

// What the methods take, as `ubus -v list` shows it. `request` and `send` take any message in place of their
// options.
constexpr blobmsg_policy request_options[] = {{"message", BLOBMSG_TYPE_TABLE},
                                              {"timeout", BLOBMSG_TYPE_INT32}};
constexpr blobmsg_policy send_options[] = {{"message", BLOBMSG_TYPE_TABLE},
                                           {"split", BLOBMSG_TYPE_INT32},
                                           {"interval", BLOBMSG_TYPE_INT32},
                                           {"repeat", BLOBMSG_TYPE_INT32},
                                           {"encrypt", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy misbehave_arguments[] = {
    {"fault", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_STRING},   {"times", BLOBMSG_TYPE_INT32},
    {"length", BLOBMSG_TYPE_INT32}, {"delay", BLOBMSG_TYPE_INT32}, {"after", BLOBMSG_TYPE_INT32},
    {"set", BLOBMSG_TYPE_TABLE}};

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

const ubus_method BusObject::methods[] = {
    row<BusObject, &BusObject::request>("request", request_options),
    row<BusObject, &BusObject::send>("send", send_options),
    row<BusObject, &BusObject::raw>("raw", raw_arguments),
    row<BusObject, &BusObject::messages>("messages", messages_arguments),
    row<BusObject, &BusObject::peer>("peer"),
    row<BusObject, &BusObject::misbehave>("misbehave", misbehave_arguments),
};

BusObject::BusObject(ubus_context *bus, Gateway &gateway, Traffic &traffic, Faults &faults)
    : PeerBus(bus, traffic, "lab.gateway", methods), gateway_(gateway), faults_(faults) {
    gateway_.on_reply = [this](int connection, const cJSON *message) {
        if (const cJSON *sequence = cJSON_GetObjectItemCaseSensitive(message, "sequence");
            cJSON_IsNumber(sequence))
            replied(connection, json_text(sequence), message);
    };
    gateway_.on_ended = [this](int connection) { ended(connection); };
}

BusObject::~BusObject() {
    gateway_.on_reply = [](int, const cJSON *) {};
    gateway_.on_ended = [](int) {};
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
    if (!can_wait())
        return UBUS_STATUS_UNKNOWN_ERROR;
    const std::optional<Sent> sent = gateway_.send(std::move(message), {});
    if (!sent)
        return not_found("request: nobody is connected");
    const json_ptr sequence(cJSON_CreateNumber(sent->sequence));
    wait(request, sent->connection, json_text(sequence.get()), timeout);
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
    if (!sent)
        return not_found("send: nobody is connected");
    const json_ptr answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "connection", sent->connection);
    cJSON_AddNumberToObject(answer.get(), "sequence", sent->sequence);
    return reply(request, answer.get());
}

int BusObject::raw(ubus_request_data *, const cJSON *arguments) {
    return PeerBus::raw(arguments, [this](std::string bytes, const Pace &pace) {
        return gateway_.send_raw(std::move(bytes), pace);
    });
}

int BusObject::peer(ubus_request_data *request, const cJSON *arguments) {
    return PeerBus::peer(request, arguments, gateway_.describe());
}

int BusObject::misbehave(ubus_request_data *, const cJSON *arguments) {
    return PeerBus::misbehave(arguments, misbehave_arguments, faults_,
                              [this] { return gateway_.update_listening(); });
}

}  // namespace arvok::lab
