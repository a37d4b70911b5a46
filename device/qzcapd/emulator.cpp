#include "emulator.h"

#include <algorithm>
#include <string_view>

extern "C" {
#include <libubox/uloop.h>
}

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
    ubus_object object{};  // first, so that handlers find the rest
    ubus_object_type type{};
    Emulator *emulator = nullptr;
    std::vector<std::vector<blobmsg_policy>> policies;
    std::vector<ubus_method> methods;
    bool on_bus = false;
};

/// A message on its way to an app, and the request that waits for the answer.
struct Emulator::AppMessage {
    ubus_request request{};  // first, as above
    uloop_timeout timer{};
    ubus_request_data waiting{};
    Emulator *emulator = nullptr;
};

Emulator::Emulator(ubus_context *ctx, Device &device)
    : ctx_(ctx), device_(device), object_(std::make_unique<BusObject>()) {}

Emulator::~Emulator() {
    device_.watch_journal(nullptr);
    while (!app_messages_.empty()) {
        ubus_abort_request(ctx_, &app_messages_.back()->request);
        conclude(app_messages_.back().get(), UBUS_STATUS_CONNECTION_FAILED);
    }
    if (object_->on_bus) {
        ubus_remove_object(ctx_, &object_->object);
    }
}

template <Emulator::Method method>
int Emulator::on_method(ubus_context *, ubus_object *object, ubus_request_data *req, const char *,
                        blob_attr *msg) {
    const auto *self = reinterpret_cast<const BusObject *>(object);
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
         argument("times", BLOBMSG_TYPE_INT32), argument("mode", BLOBMSG_TYPE_STRING)});
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
    } else if (word != "error") {
        return refuse(req, "mode: must be error, timeout or empty", UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (function == nullptr || !device_.fail_next(function, failure)) {
        return refuse(req, std::string("call: no such function: ") + (function != nullptr ? function : ""),
                      UBUS_STATUS_INVALID_ARGUMENT);
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
    const char *name = get_text(args, "app");
    const std::string path = std::string("qzapp.") + (name != nullptr ? name : "arvokclt");
    std::uint32_t id = 0;
    Message message;
    if (!cJSON_IsObject(get(args, "message")) || !to_blob(get(args, "message"), &message)) {
        return refuse(req, "message: must be an object", UBUS_STATUS_INVALID_ARGUMENT);
    }
    if (ubus_lookup_id(ctx_, path.c_str(), &id) != 0) {
        return refuse(req, path + " is not on the bus", UBUS_STATUS_NOT_FOUND);
    }
    auto pending = std::make_unique<AppMessage>();
    if (const int status = ubus_invoke_async(ctx_, id, "postmsg", message.head(), &pending->request);
        status != 0) {
        return status;
    }
    pending->emulator = this;
    pending->request.data_cb = [](ubus_request *request, int, blob_attr *msg) {
        auto *self = reinterpret_cast<AppMessage *>(request);
        if (msg != nullptr) {
            ubus_send_reply(self->emulator->ctx_, &self->waiting, msg);
        }
    };
    pending->request.complete_cb = [](ubus_request *request, int status) {
        auto *self = reinterpret_cast<AppMessage *>(request);
        self->emulator->conclude(self, status);
    };
    pending->timer.cb = [](uloop_timeout *timer) {
        auto *self = container_of(timer, AppMessage, timer);
        ubus_abort_request(self->emulator->ctx_, &self->request);
        self->emulator->conclude(self, UBUS_STATUS_TIMEOUT);
    };
    ubus_defer_request(ctx_, req, &pending->waiting);
    uloop_timeout_set(&pending->timer, app_timeout_ms);
    app_messages_.push_back(std::move(pending));
    ubus_complete_request_async(ctx_, &app_messages_.back()->request);
    return UBUS_STATUS_OK;
}

void Emulator::conclude(AppMessage *message, int status) {
    uloop_timeout_cancel(&message->timer);
    ubus_complete_deferred_request(ctx_, &message->waiting, status);
    std::erase_if(app_messages_, [&](const auto &pending) { return pending.get() == message; });
}

}  // namespace arvok::qzcapd
