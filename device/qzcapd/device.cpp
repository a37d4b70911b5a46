#include "device.h"

#include "owned.h"
#include "state.h"

namespace arvok::qzcapd {

/// One object on the bus.
struct Device::Object {
    ubus_object object{};
    ubus_object_type type{};
    Device *device = nullptr;
    std::string name;
    std::vector<ubus_method> methods;
    std::vector<std::vector<blobmsg_policy>> policies;
    bool on_bus = false;
};

/// A notification whose time has not come.
struct Device::Announced {
    explicit Announced(Device &owner, const Notification &announced)
        : timer(this),
          device(owner),
          notification{announced.object, announced.method, copy(announced.message.get()), 0} {
        timer.cb = due;
        uloop_timeout_set(&timer, announced.delay_ms);
    }
    Announced(const Announced &) = delete;
    Announced &operator=(const Announced &) = delete;
    ~Announced() { uloop_timeout_cancel(&timer); }

    static void due(uloop_timeout *timer) {
        const Announced *self = Owned<uloop_timeout, Announced>::of(timer);
        Device &device = self->device;
        device.notify(self->notification);
        std::erase_if(device.announced_, [self](const auto &entry) { return entry.get() == self; });
    }

    Owned<uloop_timeout, Announced> timer;
    Device &device;
    Notification notification;
};

namespace {

blobmsg_policy policy_of(const Param &param) {
    blobmsg_policy policy{};
    policy.name = param.name;
    switch (param.type) {
        case Param::Type::text:
            policy.type = BLOBMSG_TYPE_STRING;
            break;
        case Param::Type::number:
            policy.type = BLOBMSG_TYPE_INT32;
            break;
        case Param::Type::texts:
            policy.type = BLOBMSG_TYPE_ARRAY;
            break;
        case Param::Type::record:
            policy.type = BLOBMSG_TYPE_TABLE;
            break;
    }
    return policy;
}

/// The answer with nothing left in what it carries; an answer that carries nothing as it is.
Reply blanked(Reply reply) {
    struct Nothing {
        const char *member;
        cJSON *(*make)();
    };
    constexpr Nothing nothings[] = {{"record", cJSON_CreateObject},
                                    {"list", cJSON_CreateArray},
                                    {"text", [] { return cJSON_CreateString(""); }}};
    for (const Nothing &nothing : nothings) {
        if (get(reply.body.get(), nothing.member) != nullptr) {
            put(reply.body.get(), nothing.member, json_ptr(nothing.make()));
        }
    }
    return reply;
}

}  // namespace

Device::Device(ubus_context *ctx, json_ptr state, const std::string &root)
    : ctx_(ctx),
      state_(std::move(state)),
      factory_(copy(state_.get())),
      apps_(std::make_unique<Apps>(ctx, state_, root, [this](const json_ptr &message) {
          notify(capi::call_of("qzcap_install_app").object, capi::installed_notification, message.get());
      })) {}

Device::~Device() {
    apps_.reset();
    for (const auto &object : objects_) {
        if (object->on_bus) {
            ubus_remove_object(ctx_, &object->object);
        }
    }
}

int Device::publish() {
    for (const capi::Call &call : capi::calls) {
        const Row *row = find_row(call.object, call.method);
        if (row == nullptr) {
            continue;
        }
        if (objects_.empty() || objects_.back()->name != call.object) {
            objects_.push_back(std::make_unique<Object>());
            objects_.back()->device = this;
            objects_.back()->name = call.object;
        }
        Object &object = *objects_.back();
        std::vector<blobmsg_policy> &policy = object.policies.emplace_back();
        for (const Param &param : row->params) {
            policy.push_back(policy_of(param));
        }
        ubus_method &method = object.methods.emplace_back();
        method.name = call.method;
        method.handler = on_call;
        method.policy = policy.data();
        method.n_policy = static_cast<int>(policy.size());
    }
    for (const auto &object : objects_) {
        object->type.name = object->name.c_str();
        object->type.methods = object->methods.data();
        object->type.n_methods = static_cast<int>(object->methods.size());
        object->object.name = object->name.c_str();
        object->object.type = &object->type;
        object->object.methods = object->methods.data();
        object->object.n_methods = object->type.n_methods;
        if (const int status = ubus_add_object(ctx_, &object->object); status != 0) {
            return status;
        }
        object->on_bus = true;
    }
    return 0;
}

int Device::on_call(ubus_context *, ubus_object *object, ubus_request_data *req, const char *method,
                    blob_attr *msg) {
    const auto *self = container_of(object, Object, object);
    const Row *row = find_row(self->name, method);
    const json_ptr args = from_blob(msg);
    if (row == nullptr) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    return args ? self->device->serve(*row, req, args.get()) : UBUS_STATUS_INVALID_ARGUMENT;
}

int Device::serve(const Row &row, ubus_request_data *req, const cJSON *args) {
    record(row, args);
    Reply reply;
    if (const auto failure = failures_.take(row.call->function, false)) {
        if (failure->mode == Failure::Mode::empty) {
            return UBUS_STATUS_OK;
        }
        if (failure->mode == Failure::Mode::timeout) {
            ubus_request_data forgotten{};
            ubus_defer_request(ctx_, req, &forgotten);
            return UBUS_STATUS_OK;
        }
        reply = failure->mode == Failure::Mode::blank ? blanked(answer(row, args)) : refused(failure->reason);
    } else {
        reply = answer(row, args);
    }
    if (!reply.later) {
        return respond(req, reply);
    }
    ubus_request_data waiting{};
    ubus_defer_request(ctx_, req, &waiting);
    reply.later([this, waiting](const Reply &found) {
        ubus_request_data caller = waiting;
        ubus_complete_deferred_request(ctx_, &caller, respond(&caller, found));
    });
    return UBUS_STATUS_OK;
}

int Device::respond(ubus_request_data *req, const Reply &reply) {
    Message message;
    if (!to_blob(reply.body.get(), &message)) {
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    ubus_send_reply(ctx_, req, message.head());
    for (const Notification &notification : reply.notifications) {
        announce(notification);
    }
    return UBUS_STATUS_OK;
}

void Device::announce(const Notification &notification) {
    if (notification.delay_ms == 0) {
        notify(notification);
    } else {
        announced_.push_back(std::make_unique<Announced>(*this, notification));
    }
}

Reply Device::answer(const Row &row, const cJSON *args) {
    if (const std::string fault = check_arguments(row, args); !fault.empty()) {
        return refused(fault);
    }
    json_ptr before = row.changes ? copy(state_.get()) : nullptr;
    World world{state_.get(), factory_.get(), *apps_, failures_};
    Reply reply = row.handler(world, args);
    if (before && !reply.ok) {
        state_ = std::move(before);
    } else if (before) {
        for (Notification &notification : announcements(before.get(), state_.get())) {
            reply.notifications.push_back(std::move(notification));
        }
    }
    return reply;
}

void Device::record(const Row &row, const cJSON *args) {
    json_ptr entry(cJSON_CreateObject());
    put_text(entry.get(), "call", row.call->function);
    put(entry.get(), "args", copy(args));
    if (watcher_) {
        watcher_(entry.get());
    }
    journal_.push_back(std::move(entry));
    if (journal_.size() > journal_limit) {
        journal_.pop_front();
        ++dropped_;
    }
}

std::string Device::patch(const cJSON *patch) {
    json_ptr merged = copy(state_.get());
    merge_patch(merged.get(), patch);
    if (std::string fault = check_state(merged.get()); !fault.empty()) {
        return fault;
    }
    number_hosts(merged.get());
    std::swap(state_, merged);
    apps_->follow_document();
    for (const Notification &notification : announcements(merged.get(), state_.get())) {
        notify(notification);
    }
    return "";
}

json_ptr Device::journal(std::size_t *left_out) const {
    std::size_t first = journal_.size();
    for (std::size_t bytes = 0; first > 0; --first) {
        bytes += print(journal_[first - 1].get()).size();
        if (bytes > journal_answer_limit) {
            break;
        }
    }
    json_ptr entries(cJSON_CreateArray());
    for (std::size_t i = first; i < journal_.size(); ++i) {
        cJSON_AddItemToArray(entries.get(), copy(journal_[i].get()).release());
    }
    *left_out = dropped_ + first;
    return entries;
}

bool Device::notify(const Notification &notification) {
    for (const capi::NumberedObject &numbered : capi::numbered_objects) {
        if (numbered.number == notification.object) {
            return notify(numbered.name, notification.method.c_str(), notification.message.get());
        }
    }
    return false;
}

bool Device::notify(const std::string &name, const char *method, const cJSON *message) {
    for (const auto &object : objects_) {
        Message blob;
        if (object->name == name) {
            return to_blob(message, &blob) &&
                   ubus_notify(ctx_, &object->object, method, blob.head(), -1) == 0;
        }
    }
    return false;
}

}  // namespace arvok::qzcapd
