#include "bus_object.h"

#include <iterator>
#include <utility>

#include "json.h"

namespace arvok::lab {
namespace {

constexpr int default_timeout = 5000;
constexpr int most_copies = 10000;

// What the methods take, as `ubus -v list` shows it. `request` and `send` take any message in place of their
// options.
constexpr blobmsg_policy request_options[] = {{"message", BLOBMSG_TYPE_TABLE},
                                              {"parameter_text", BLOBMSG_TYPE_STRING},
                                              {"mac", BLOBMSG_TYPE_STRING},
                                              {"timeout", BLOBMSG_TYPE_INT32}};
constexpr blobmsg_policy send_options[] = {
    {"message", BLOBMSG_TYPE_TABLE}, {"parameter_text", BLOBMSG_TYPE_STRING}, {"mac", BLOBMSG_TYPE_STRING},
    {"split", BLOBMSG_TYPE_INT32},   {"interval", BLOBMSG_TYPE_INT32},        {"repeat", BLOBMSG_TYPE_INT32},
    {"encrypt", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy forget_arguments[] = {{"mac", BLOBMSG_TYPE_STRING}};
constexpr blobmsg_policy statistics_arguments[] = {{"segments", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy turn_arguments[] = {{"server", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_BOOL}};
constexpr blobmsg_policy set_arguments[] = {
    {"business", BLOBMSG_TYPE_ARRAY}, {"spread", BLOBMSG_TYPE_BOOL}, {"acknowledge", BLOBMSG_TYPE_ARRAY}};
constexpr blobmsg_policy misbehave_arguments[] = {
    {"fault", BLOBMSG_TYPE_STRING}, {"server", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_STRING},
    {"times", BLOBMSG_TYPE_INT32},  {"length", BLOBMSG_TYPE_INT32},  {"delay", BLOBMSG_TYPE_INT32},
    {"after", BLOBMSG_TYPE_INT32},  {"split", BLOBMSG_TYPE_INT32},   {"interval", BLOBMSG_TYPE_INT32},
    {"copies", BLOBMSG_TYPE_INT32}, {"set", BLOBMSG_TYPE_TABLE},     {"message", BLOBMSG_TYPE_TABLE}};

// A call gives the message itself, or it gives options with the message inside.
bool has_options(const cJSON *arguments) {
    return cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(arguments, "message")) &&
           !cJSON_GetObjectItemCaseSensitive(arguments, "RPCMethod") &&
           !cJSON_GetObjectItemCaseSensitive(arguments, "Ack");
}

// Reads an optional text; false when it is there and none.
bool read_text(const cJSON *arguments, const char *name, std::string &value) {
    const char *text = string_member(arguments, name);
    if (text)
        value = text;
    return text || !cJSON_GetObjectItemCaseSensitive(arguments, name);
}

void set_text(cJSON *object, const char *name, const std::string &text) {
    cJSON_DeleteItemFromObjectCaseSensitive(object, name);
    cJSON_AddStringToObject(object, name, text.c_str());
}

// The message of a call. Beside options, a "Parameter" that is no text yet becomes one: base64 of its JSON
// text, or of "parameter_text".
json_ptr message_of(const cJSON *arguments) {
    if (!has_options(arguments))
        return json_ptr(cJSON_Duplicate(arguments, 1));
    json_ptr message(cJSON_Duplicate(cJSON_GetObjectItemCaseSensitive(arguments, "message"), 1));
    const cJSON *parameter = cJSON_GetObjectItemCaseSensitive(message.get(), "Parameter");
    if (const char *text = string_member(arguments, "parameter_text"))
        set_text(message.get(), "Parameter", to_base64(text));
    else if (cJSON_IsObject(parameter))
        set_text(message.get(), "Parameter", to_base64(json_text(parameter)));
    return message;
}

std::string key_of(const char *method, const char *id) {
    return std::string(method) + '\n' + id;
}

// The reply as `request` answers it: "return_Parameter" is shown decoded beside, as JSON where it is JSON.
json_ptr readable(const cJSON *reply) {
    json_ptr shown(cJSON_Duplicate(reply, 1));
    const char *encoded = string_member(reply, "return_Parameter");
    const std::optional<std::string> text = encoded ? from_base64(encoded) : std::nullopt;
    if (!text)
        return shown;
    json_ptr object = parse_object(*text);
    cJSON_AddItemToObject(shown.get(), "return",
                          object ? object.release() : cJSON_CreateString(text->c_str()));
    return shown;
}

}  // namespace

const ubus_method BusObject::methods[] = {
    row<BusObject, &BusObject::request>("request", request_options),
    row<BusObject, &BusObject::send>("send", send_options),
    row<BusObject, &BusObject::raw>("raw", raw_arguments),
    row<BusObject, &BusObject::messages>("messages", messages_arguments),
    row<BusObject, &BusObject::peer>("peer"),
    row<BusObject, &BusObject::devices>("devices"),
    row<BusObject, &BusObject::statistics>("statistics", statistics_arguments),
    row<BusObject, &BusObject::turn>("turn", turn_arguments),
    row<BusObject, &BusObject::forget>("forget", forget_arguments),
    row<BusObject, &BusObject::set>("set", set_arguments),
    row<BusObject, &BusObject::misbehave>("misbehave", misbehave_arguments),
};

BusObject::BusObject(ubus_context *bus, Cloud &cloud, Traffic &traffic, Faults &faults)
    : PeerBus(bus, traffic, "lab.cloud", methods), cloud_(cloud), faults_(faults) {
    cloud_.on_reply = [this](int connection, const cJSON *message) { answered(connection, message); };
    cloud_.on_ended = [this](int connection) { ended(connection); };
}

BusObject::~BusObject() {
    cloud_.on_reply = [](int, const cJSON *) {};
    cloud_.on_ended = [](int) {};
}

int BusObject::request(ubus_request_data *request, const cJSON *arguments) {
    int timeout = default_timeout;
    std::string mac, text;
    if (has_options(arguments)) {
        if (const char *name = unknown_member(arguments, request_options))
            return invalid(std::string("request: unknown option \"") + name + "\"");
        if (!read_integer(arguments, "timeout", 1, longest_wait, timeout) ||
            !read_text(arguments, "mac", mac) || !read_text(arguments, "parameter_text", text))
            return invalid(
                "request: \"timeout\" is a number of milliseconds, \"mac\" and \"parameter_text\" are texts");
    }
    json_ptr message = message_of(arguments);
    if (!cJSON_GetObjectItemCaseSensitive(message.get(), "ID"))
        cJSON_AddStringToObject(message.get(), "ID", std::to_string(++id_).c_str());
    const char *method = string_member(message.get(), "RPCMethod"), *id = string_member(message.get(), "ID");
    if (!method || !id)
        return invalid("request: a message has an \"RPCMethod\", and its \"ID\" is a text");
    if (!can_wait())
        return UBUS_STATUS_UNKNOWN_ERROR;
    const std::string key = key_of(method, id);
    const std::optional<int> connection = cloud_.request(std::move(message), mac);
    if (!connection)
        return not_found(mac.empty() ? "request: no device is connected"
                                     : "request: no device is connected with the mac " + mac);
    wait(request, *connection, key, timeout);
    return UBUS_STATUS_OK;
}

int BusObject::send(ubus_request_data *request, const cJSON *arguments) {
    SendOptions options;
    if (has_options(arguments)) {
        bool encrypt = true;
        std::string text;
        if (const char *name = unknown_member(arguments, send_options))
            return invalid(std::string("send: unknown option \"") + name + "\"");
        if (!read_pace(arguments, options.pace) ||
            !read_integer(arguments, "repeat", 1, most_copies, options.repeat) ||
            !read_bool(arguments, "encrypt", encrypt) || !read_text(arguments, "mac", options.mac) ||
            !read_text(arguments, "parameter_text", text))
            return invalid(
                "send: \"split\" and \"repeat\" are numbers from 1 on, \"interval\" from 0 on, "
                "\"encrypt\" is true or false, \"mac\" and \"parameter_text\" are texts");
        options.encrypt = encrypt;
    }
    const std::optional<int> connection = cloud_.send(message_of(arguments), options);
    if (!connection)
        return not_found("send: nobody is connected");
    const json_ptr answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "connection", *connection);
    return reply(request, answer.get());
}

int BusObject::raw(ubus_request_data *, const cJSON *arguments) {
    return PeerBus::raw(arguments, [this](std::string bytes, const Pace &pace) {
        return cloud_.send_raw(std::move(bytes), pace);
    });
}

int BusObject::peer(ubus_request_data *request, const cJSON *arguments) {
    return PeerBus::peer(request, arguments, cloud_.describe());
}

int BusObject::devices(ubus_request_data *request, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, {}))
        return invalid(std::string("devices: unknown argument \"") + name + "\"");
    return reply(request, cloud_.devices().get());
}

int BusObject::statistics(ubus_request_data *request, const cJSON *arguments) {
    bool segments = false;
    if (const char *name = unknown_member(arguments, statistics_arguments))
        return invalid(std::string("statistics: unknown argument \"") + name + "\"");
    if (!read_bool(arguments, "segments", segments))
        return invalid("statistics: \"segments\" is true or false");
    return reply(request, cloud_.statistics(segments).get());
}

int BusObject::turn(ubus_request_data *, const cJSON *arguments) {
    std::string server;
    bool on = true;
    if (const char *name = unknown_member(arguments, turn_arguments))
        return invalid(std::string("turn: unknown argument \"") + name + "\"");
    if (!read_text(arguments, "server", server) || !read_bool(arguments, "on", on) ||
        !cJSON_GetObjectItemCaseSensitive(arguments, "on"))
        return invalid("turn: \"server\" is a text, \"on\" true or false");
    if (!server.empty() && !cloud_.has_server(server))
        return invalid("turn: there is no such \"server\": " + server);
    return cloud_.turn(server, on) ? UBUS_STATUS_OK : UBUS_STATUS_UNKNOWN_ERROR;
}

int BusObject::forget(ubus_request_data *, const cJSON *arguments) {
    std::string mac;
    if (const char *name = unknown_member(arguments, forget_arguments))
        return invalid(std::string("forget: unknown argument \"") + name + "\"");
    if (!read_text(arguments, "mac", mac))
        return invalid("forget: \"mac\" is a text");
    return cloud_.forget(mac) ? UBUS_STATUS_OK : not_found("forget: unknown device " + mac);
}

int BusObject::set(ubus_request_data *request, const cJSON *arguments) {
    if (const char *name = unknown_member(arguments, set_arguments))
        return invalid(std::string("set: unknown argument \"") + name + "\"");
    if (!cloud_.change(arguments))
        return invalid(
            "set: \"business\" is a list of HOST:PORT and of objects, \"acknowledge\" of the notifications' "
            "names, \"spread\" true or false");
    return reply(request, cloud_.settings().get());
}

int BusObject::misbehave(ubus_request_data *, const cJSON *arguments) {
    std::string server;
    if (!read_text(arguments, "server", server) || (!server.empty() && !cloud_.has_server(server)))
        return invalid("misbehave: there is no such \"server\": " + server);
    return PeerBus::misbehave(arguments, misbehave_arguments, faults_,
                              [this] { return cloud_.update_listening(); });
}

void BusObject::answered(int connection, const cJSON *message) {
    if (const char *id = string_member(message, "ID"))
        replied(connection, key_of(string_member(message, "Ack"), id), readable(message).get());
}

}  // namespace arvok::lab
