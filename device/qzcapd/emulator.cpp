#include "emulator.h"

#include <string_view>

namespace arvok::qzcapd {
namespace {

/// How long an app may take to answer a message, in milliseconds.
constexpr int app_timeout_ms = 10000;
constexpr double max_failures = 1000000;

blobmsg_policy argument(const char *name, enum blobmsg_type type) {
    blobmsg_policy policy{};
    policy.name = name;
    policy.type = type;
    return policy;
}

}  // namespace

struct Emulator::BusObject {
    ubus_object object{};
    ubus_object_type type{};
    Emulator *emulator = nullptr;
    std::vector<std::vector<blobmsg_policy>> policies;
    std::vector<ubus_method> methods;
    bool on_bus = false;
};

Emulator::Emulator(ubus_context *ctx, Device &device)
    : ctx_(ctx), device_(device), object_(std::make_unique<BusObject>()), app_messages_(ctx) {}

Emulator::~Emulator() {
    device_.watch_journal(nullptr);
    app_messages_.end_all();  // while the object that has to answer is still there
    if (object_->on_bus) {
        ubus_remove_object(ctx_, &object_->object);
    }
}

template <Emulator::Method method>
int Emulator::on_method(ubus_context *, ubus_object *object, ubus_request_data *req, const char *,
                        blob_attr *msg) {
    const auto *self = container_of(object, BusObject, object);
    const json_ptr args = from_blob(msg);
    return args ? (self->emulator->*method)(req, args.get()) : UBUS_STATUS_INVALID_ARGUMENT;
}

int Emulator::publish() {
    BusObject &bus = *object_;
    bus.emulator = this;
    const auto add = [&](const char *name, ubus_handler_t handler, std::vector<blobmsg_policy> policy) {
        bus.policies.push_back(std::move(policy));
        ubus_method &method = bus.methods.emplace_back();
        method.name = name;
        method.handler = handler;
        method.policy = bus.policies.back().data();
        method.n_policy = static_cast<int>(bus.policies.back().size());
    };
    add("state", on_method<&Emulator::state>, {});
    add("patch", on_method<&Emulator::patch>, {argument("patch", BLOBMSG_TYPE_TABLE)});
    add("calls", on_method<&Emulator::calls>, {argument("clear", BLOBMSG_TYPE_BOOL)});
    add("fail", on_method<&Emulator::fail>,
        {argument("call", BLOBMSG_TYPE_STRING), argument("reason", BLOBMSG_TYPE_STRING),
         argument("times", BLOBMSG_TYPE_INT32), argument("mode", BLOBMSG_TYPE_STRING),
         argument("completion", BLOBMSG_TYPE_BOOL)});
    add("notify", on_method<&Emulator::notify>,
        {argument("object", BLOBMSG_TYPE_INT32), argument("method", BLOBMSG_TYPE_STRING),
         argument("message", BLOBMSG_TYPE_TABLE)});
    add("app", on_method<&Emulator::app>,
        {argument("message", BLOBMSG_TYPE_TABLE), argument("app", BLOBMSG_TYPE_STRING)});
    bus.type.name = "qzcapd.emulator";
    bus.type.methods = bus.methods.data();
    bus.type.n_methods = static_cast<int>(bus.methods.size());
    bus.object.name = bus.type.name;
    bus.object.type = &bus.type;
    bus.object.methods = bus.methods.data();
    bus.object.n_methods = bus.type.n_methods;
    const int status = ubus_add_object(ctx_, &bus.object);
    bus.on_bus = status == 0;
    device_.watch_journal([this](const cJSON *entry) {
        Message message;
        if (object_->object.has_subscribers && to_blob(entry, &message)) {
            ubus_notify(ctx_, &object_->object, "call", message.head(), -1);
        }
    });
    return status;
}

int Emulator::send(ubus_request_data *req, const cJSON *body) {
    Message message;
    if (!to_blob(body, &message)) {
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    return ubus_send_reply(ctx_, req, message.head());
}

/// Says why in the answer; the status makes command-line callers fail too.
int Emulator::refuse(ubus_request_data *req, const std::string &reason, int status) {
    send(req, refused(reason).body.get());
    return status;
}

int Emulator::state(ubus_request_data *req, const cJSON *) {
    return send(req, device_.state());
}

int Emulator::patch(ubus_request_data *req, const cJSON *args) {
    const cJSON *patch = get(args, "patch");
    if (!cJSON_IsObject(patch)) {
        return refuse(req, "patch: must be an object", UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (const std::string fault = device_.patch(patch); !fault.empty()) {
        return refuse(req, fault, UBUS_STATUS_INVALID_ARGUMENT);
    }
    return send(req, done().body.get());
}

int Emulator::calls(ubus_request_data *req, const cJSON *args) {
    const cJSON *clear = get(args, "clear");
    if (clear != nullptr && !cJSON_IsBool(clear)) {
        return refuse(req, "clear: must be true or false", UBUS_STATUS_INVALID_ARGUMENT);
    }
    json_ptr body(cJSON_CreateObject());
    std::size_t left_out = 0;
    put(body.get(), "calls", device_.journal(&left_out));
    if (left_out > 0) {
        cJSON_AddNumberToObject(body.get(), "left_out", static_cast<double>(left_out));
    }
    const int status = send(req, body.get());
    if (status == 0 && cJSON_IsTrue(clear)) {
        device_.clear_journal();
    }
    return status;
}

int Emulator::fail(ubus_request_data *req, const cJSON *args) {
    const char *function = get_text(args, "call");
    const char *reason = get_text(args, "reason");
    const char *mode = get_text(args, "mode");
    const cJSON *times = get(args, "times");
    const cJSON *completion = get(args, "completion");
    Failure failure;
    failure.reason = reason != nullptr ? reason : "emulated failure";
    if (times != nullptr && (!cJSON_IsNumber(times) || times->valuedouble < 0 ||
                             times->valuedouble > max_failures || times->valuedouble != times->valueint)) {
        return refuse(req, "times: must be a whole number from 0 to 1000000", UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (times != nullptr) {
        failure.times = static_cast<unsigned int>(times->valuedouble);
    }
    const std::string_view word = mode != nullptr ? mode : "error";
    if (word == "timeout") {
        failure.mode = Failure::Mode::timeout;
    } else if (word == "empty") {
        failure.mode = Failure::Mode::empty;
    } else if (word == "blank") {
        failure.mode = Failure::Mode::blank;
    } else if (word != "error") {
        return refuse(req, "mode: must be error, timeout, empty or blank", UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (completion != nullptr && !cJSON_IsBool(completion)) {
        return refuse(req, "completion: must be true or false", UBUS_STATUS_INVALID_ARGUMENT);
    }
    failure.completion = cJSON_IsTrue(completion);
    if (const std::string fault = device_.failures().order(function != nullptr ? function : "", failure);
        !fault.empty()) {
        return refuse(req, fault, UBUS_STATUS_INVALID_ARGUMENT);
    }
    return send(req, done().body.get());
}

int Emulator::notify(ubus_request_data *req, const cJSON *args) {
    const cJSON *object = get(args, "object");
    const char *method = get_text(args, "method");
    const cJSON *message = get(args, "message");
    if (!cJSON_IsNumber(object) || method == nullptr || !cJSON_IsObject(message)) {
        return refuse(req, "object (number), method (text) and message (object) must be given",
                      UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (!device_.notify({object->valueint, method, copy(message)})) {
        return refuse(req, "object: no such platform object", UBUS_STATUS_NOT_FOUND);
    }
    return send(req, done().body.get());
}

/// The app's answer comes when it comes: the daemon serves others meanwhile, the app among them.
int Emulator::app(ubus_request_data *req, const cJSON *args) {
    const char *given = get_text(args, "app");
    const std::string name = given != nullptr ? given : "arvokclt";
    Message message;
    if (!cJSON_IsObject(get(args, "message")) || !to_blob(get(args, "message"), &message)) {
        return refuse(req, "message: must be an object", UBUS_STATUS_INVALID_ARGUMENT);
    }
    const std::uint32_t object = app_messages_.find(name);
    if (object == 0) {
        return refuse(req, "qzapp." + name + " is not on the bus", UBUS_STATUS_NOT_FOUND);
    }
    ubus_request_data waiting{};
    ubus_defer_request(ctx_, req, &waiting);
    const auto done = [this, waiting](int status, blob_attr *answer) {
        ubus_request_data caller = waiting;
        if (answer != nullptr) {
            ubus_send_reply(ctx_, &caller, answer);
        }
        ubus_complete_deferred_request(ctx_, &caller, status);
    };
    if (const int status = app_messages_.send(object, message.head(), app_timeout_ms, done); status != 0) {
        done(status, nullptr);
    }
    return UBUS_STATUS_OK;
}

}  // namespace arvok::qzcapd
