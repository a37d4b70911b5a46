#include "bus.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

#include "hex.h"

extern "C" {
#include <libubox/blobmsg.h>
}

namespace arvok::lab {
namespace {

constexpr std::size_t most_pending = 1000;

}  // namespace

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

bool read_bool(const cJSON *arguments, const char *name, bool &value) {
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(arguments, name);
    if (cJSON_IsBool(member))
        value = cJSON_IsTrue(member);
    return !member || cJSON_IsBool(member);
}

PeerBus::PeerBus(ubus_context *bus, Traffic &traffic, const char *name, std::span<const ubus_method> methods)
    : bus_(bus), traffic_(traffic) {
    type_.name = object_.name = name;
    type_.methods = object_.methods = methods.data();
    type_.n_methods = object_.n_methods = static_cast<int>(methods.size());
    object_.type = &type_;
    object_.owner = this;
}

PeerBus::~PeerBus() {
    traffic_.publish(nullptr, nullptr);
    ubus_remove_object(bus_, &object_);
    blob_buf_free(&buffer_);
}

int PeerBus::publish() {
    traffic_.publish(bus_, &object_);
    return ubus_add_object(bus_, &object_);
}

int PeerBus::messages(ubus_request_data *request, const cJSON *arguments) {
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

int PeerBus::raw(const cJSON *arguments, const std::function<bool(std::string, const Pace &)> &send) {
    if (const char *name = unknown_member(arguments, raw_arguments))
        return invalid(std::string("raw: unknown argument \"") + name + "\"");
    Pace pace;
    const char *digits = string_member(arguments, "hex");
    std::optional<std::string> bytes = digits ? from_hex(digits) : std::nullopt;
    if (!bytes || bytes->empty() || !read_pace(arguments, pace))
        return invalid(
            "raw: \"hex\" is an even count of digits, \"split\" a number from 1 on, \"interval\" from 0 on");
    return send(std::move(*bytes), pace) ? UBUS_STATUS_OK : not_found("raw: nobody is connected");
}

int PeerBus::peer(ubus_request_data *request, const cJSON *arguments, json_ptr description) {
    if (const char *name = unknown_member(arguments, {}))
        return invalid(std::string("peer: unknown argument \"") + name + "\"");
    cJSON_AddBoolToObject(description.get(), "subscribers", object_.has_subscribers);
    return reply(request, description.get());
}

int PeerBus::misbehave(const cJSON *arguments, std::span<const blobmsg_policy> known, Faults &faults,
                       const std::function<bool()> &update_listening) {
    if (const char *name = unknown_member(arguments, known))
        return invalid(std::string("misbehave: unknown argument \"") + name + "\"");
    if (const std::string wrong = faults.arm(arguments); !wrong.empty())
        return invalid("misbehave: " + wrong);
    traffic_.event(0, "misbehave: " + faults.describe());
    return update_listening() ? UBUS_STATUS_OK : UBUS_STATUS_UNKNOWN_ERROR;
}

int PeerBus::invalid(const std::string &why) {
    traffic_.event(0, why);
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int PeerBus::not_found(const std::string &why) {
    traffic_.event(0, why);
    return UBUS_STATUS_NOT_FOUND;
}

int PeerBus::reply(ubus_request_data *request, const cJSON *object) {
    blob_buf_init(&buffer_, 0);
    if (!add_to_bus(&buffer_, object))
        return UBUS_STATUS_UNKNOWN_ERROR;
    return ubus_send_reply(bus_, request, buffer_.head);
}

bool PeerBus::can_wait() const {
    return pending_.size() < most_pending;
}

void PeerBus::wait(ubus_request_data *request, int connection, std::string key, int timeout) {
    const auto pending = pending_.insert(pending_.end(), Pending{connection, std::move(key), {}, {}});
    pending->timeout = std::make_unique<Timer>([this, pending] {
        traffic_.event(pending->connection, "request: no reply");
        finish(pending, UBUS_STATUS_TIMEOUT);
    });
    pending->timeout->set(timeout);
    ubus_defer_request(bus_, request, &pending->request);
}

void PeerBus::replied(int connection, const std::string &key, const cJSON *message) {
    const auto pending = std::find_if(pending_.begin(), pending_.end(), [&](const Pending &entry) {
        return entry.connection == connection && entry.key == key;
    });
    if (pending != pending_.end())
        finish(pending, reply(&pending->request, message));
}

void PeerBus::ended(int connection) {
    for (auto pending = pending_.begin(); pending != pending_.end();) {
        const auto next = std::next(pending);
        if (pending->connection == connection)
            finish(pending, UBUS_STATUS_NOT_FOUND);
        pending = next;
    }
}

void PeerBus::finish(std::list<Pending>::iterator pending, int status) {
    ubus_complete_deferred_request(bus_, &pending->request, status);
    pending_.erase(pending);
}

}  // namespace arvok::lab
