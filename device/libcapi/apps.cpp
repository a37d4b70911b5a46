extern "C" {
#include <libubox/uloop.h>
}

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "exchange.h"
#include "qzcap.h"

namespace {

using namespace arvok::capi;

/// A published app. The bus object comes first, so that its handlers find the rest.
struct Registration {
    ubus_object object{};
    ubus_object_type type{};
    std::string name;
    const qzcap_appmgtcb *callbacks = nullptr;
};

template <ubus_handler_t qzcap_appmgtcb::*slot>
int deliver(ubus_context *ctx, ubus_object *object, ubus_request_data *req, const char *method,
            blob_attr *msg) {
    const auto *registration = reinterpret_cast<const Registration *>(object);
    const ubus_handler_t handler = registration->callbacks->*slot;
    return handler != nullptr ? handler(ctx, object, req, method, msg) : UBUS_STATUS_METHOD_NOT_FOUND;
}

ubus_method app_method(const char *name, ubus_handler_t handler) {
    ubus_method method{};
    method.name = name;
    method.handler = handler;
    return method;
}

const ubus_method *app_methods() {
    static const blobmsg_policy message[] = {{"CmdType", BLOBMSG_TYPE_STRING},
                                             {"SequenceId", BLOBMSG_TYPE_STRING}};
    static const ubus_method methods[] = {
        app_method("start", deliver<&qzcap_appmgtcb::start>),
        app_method("stop", deliver<&qzcap_appmgtcb::stop>),
        [] {
            ubus_method method = app_method("postmsg", deliver<&qzcap_appmgtcb::postmsg>);
            method.policy = message;
            method.n_policy = 2;
            return method;
        }(),
        app_method("restore", deliver<&qzcap_appmgtcb::restore>),
    };
    return methods;
}

constexpr int app_method_count = 4;

/// An installation under way. The platform notifies its end, however long that takes.
struct Installation {
    uloop_timeout timer{};  // first, so that its callback finds the rest
    std::int64_t id = 0;
    ubus_request request{};  // what the caller gets to see
    qzcap_install_handler_t done = nullptr;
    void *priv = nullptr;
    blob_ptr message;
};

/// Longer than the platform's own limits for download and unpacking.
constexpr int installation_timeout_ms = 600000;

/// The outcome of an installation whose id is not known yet, because the notification has overtaken the
/// answer to the call.
struct Outcome {
    std::int64_t id;
    blob_ptr message;
};

/// All the installations of a session.
struct Installations {
    ubus_subscriber subscriber{};
    std::uint32_t manager = 0;  ///< the bus object that is subscribed to; 0: none
    unsigned int starting = 0;  ///< calls that wait for their id
    bool ending = false;        ///< the session ends: nothing new
    std::vector<Outcome> early;
    std::vector<std::unique_ptr<Installation>> under_way;
};

Installations installations;

/// Tells the caller; the timer's callback.
void conclude(uloop_timeout *timer) {
    auto &found = *std::ranges::find_if(installations.under_way,
                                        [&](const auto &item) { return &item->timer == timer; });
    const std::unique_ptr<Installation> ended = std::move(found);
    std::erase(installations.under_way, nullptr);
    uloop_timeout_cancel(&ended->timer);
    ended->request.priv = ended->priv;
    ended->done(&ended->request, ended->message.get());
}

/// A table inside a message as a message of its own; null stays null.
blob_ptr take_table(blob_attr *table) {
    if (table == nullptr) {
        return nullptr;
    }
    blob_buf copy{};
    blob_buf_init(&copy, 0);
    blob_attr *attr = nullptr;
    std::size_t rem = 0;
    blobmsg_for_each_attr(attr, table, rem) {
        blobmsg_add_field(&copy, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                          blobmsg_data_len(attr));
    }
    blob_ptr message(blob_memdup(copy.head));
    blob_buf_free(&copy);
    return message;
}

/// The caller is told from the loop, not from inside whatever waits for an answer now.
void end_soon(Installation &installation, blob_ptr message) {
    installation.message = std::move(message);
    uloop_timeout_set(&installation.timer, 0);
}

int on_notification(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg) {
    const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"outcome", BLOBMSG_TYPE_TABLE}};
    blob_attr *members[2];
    std::int64_t id = 0;
    if (std::string_view(method) != installed_notification || msg == nullptr ||
        blobmsg_parse(policy, 2, members, blob_data(msg), static_cast<unsigned>(blob_len(msg))) != 0 ||
        members[0] == nullptr || !get_integer(members[0], &id)) {
        return 0;
    }
    for (const auto &installation : installations.under_way) {
        if (installation->id == id) {
            end_soon(*installation, take_table(members[1]));
            return 0;
        }
    }
    if (installations.starting > 0) {
        installations.early.push_back({id, take_table(members[1])});
    }
    return 0;
}

/// The app manager has gone, and with it everything that it was about to do. The news may be late: a new one
/// may be at work already.
void on_manager_gone(ubus_context *, ubus_subscriber *, std::uint32_t id) {
    if (id != installations.manager) {
        return;
    }
    installations.manager = 0;
    for (const auto &installation : installations.under_way) {
        end_soon(*installation, nullptr);
    }
}

/// Listens to the app manager; false when there is none.
bool listen_to_manager(const char *object) {
    const std::uint32_t id = qzcap_get_objid_by_name(object);
    if (id != 0 && id == installations.manager) {
        return true;
    }
    installations.subscriber.cb = on_notification;
    installations.subscriber.remove_cb = on_manager_gone;
    if (id == 0) {
        return false;
    }
    if (installations.manager != 0) {
        on_manager_gone(nullptr, nullptr, installations.manager);
    }
    if (qzcap_ubus_subscribe(&installations.subscriber, id) != 0) {
        return false;
    }
    installations.manager = id;
    return true;
}

void await_end(std::int64_t id, qzcap_install_handler_t done, void *priv) {
    auto installation = std::make_unique<Installation>();
    installation->timer.cb = conclude;
    installation->id = id;
    installation->done = done;
    installation->priv = priv;
    uloop_timeout_set(&installation->timer, installation_timeout_ms);
    const auto early = std::ranges::find(installations.early, id, &Outcome::id);
    if (early != installations.early.end()) {
        end_soon(*installation, std::move(early->message));
    } else if (installations.manager == 0) {
        end_soon(*installation, nullptr);  // gone since it answered
    }
    installations.under_way.push_back(std::move(installation));
}

int app_action(const Call &call, const char *name, char **errtext) {
    return perform(call, Arguments().text("name", name), errtext);
}

}  // namespace

void *qzcap_register_appmgtcb(void *, const qzcap_appmgtcb *callbacks) {
    ubus_context *ctx = qzcap_get_ubus_context();
    if (ctx == nullptr || callbacks == nullptr) {
        return nullptr;
    }
    auto registration = std::make_unique<Registration>();
    registration->name = std::string("qzapp.") + program_invocation_short_name;
    registration->callbacks = callbacks;
    registration->type.name = "qzapp";
    registration->type.methods = app_methods();
    registration->type.n_methods = app_method_count;
    registration->object.name = registration->name.c_str();
    registration->object.type = &registration->type;
    registration->object.methods = app_methods();
    registration->object.n_methods = app_method_count;
    return ubus_add_object(ctx, &registration->object) == 0 ? registration.release() : nullptr;
}

void qzcap_unregister_appmgtcb(void *handle) {
    const std::unique_ptr<Registration> registration(static_cast<Registration *>(handle));
    if (registration && qzcap_get_ubus_context() != nullptr) {
        ubus_remove_object(qzcap_get_ubus_context(), &registration->object);
    }
}

int qzcap_install_app(ubus_context *, const char *url, qzcap_install_handler_t done, void *priv) {
    constexpr const Call &call = call_of("qzcap_install_app");
    if (done == nullptr || installations.ending || !listen_to_manager(call.object)) {
        return -1;
    }
    ++installations.starting;
    const int id = perform_for_value(call, Arguments().text("url", url), nullptr);
    --installations.starting;
    if (id >= 0) {
        await_end(id, done, priv);
    }
    if (installations.starting == 0) {
        installations.early.clear();
    }
    return id >= 0 ? 0 : -1;
}

void arvok::capi::abandon_installations() {
    installations.ending = true;
    while (!installations.under_way.empty()) {
        Installation &installation = *installations.under_way.back();
        installation.message.reset();
        conclude(&installation.timer);
    }
    installations.manager = 0;
    installations.ending = false;
}

int qzcap_uninstall_app(ubus_context *, const char *name, char **errtext) {
    return app_action(call_of("qzcap_uninstall_app"), name, errtext);
}

int qzcap_run_app(ubus_context *, const char *name, char **errtext) {
    return app_action(call_of("qzcap_run_app"), name, errtext);
}

int qzcap_stop_app(ubus_context *, const char *name, char **errtext) {
    return app_action(call_of("qzcap_stop_app"), name, errtext);
}

int qzcap_restore_app(ubus_context *, const char *name, char **errtext) {
    return app_action(call_of("qzcap_restore_app"), name, errtext);
}

int qzcap_get_applist(ubus_context *, unsigned int *count, qzcap_app ***list) {
    return fetch_list(call_of("qzcap_get_applist"), app, {}, count, list);
}

void qzcap_free_applist(unsigned int count, qzcap_app **list) {
    free_list(app, count, list);
}

char *qzcap_app_postmsg(ubus_context *, const char *name, const char *message, char **errtext) {
    return fetch_text(call_of("qzcap_app_postmsg"), Arguments().text("name", name).text("message", message),
                      errtext);
}
