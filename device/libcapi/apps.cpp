#include <algorithm>
#include <cerrno>
#include <string>
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

/// An installation under way. The platform answers at its end, however long that takes.
struct Installation {
    ubus_request request{};
    qzcap_install_handler_t done = nullptr;
    void *priv = nullptr;
    blob_ptr message;
};

std::vector<std::unique_ptr<Installation>> installations;

void installation_data(ubus_request *request, int, blob_attr *msg) {
    auto *installation = static_cast<Installation *>(request->priv);
    if (msg != nullptr) {
        installation->message.reset(blob_memdup(msg));
    }
}

/// Tells the caller. The request that it sees carries its own pointer; the bus library is done with the
/// request.
void conclude(Installation &installation) {
    installation.request.priv = installation.priv;
    installation.done(&installation.request, installation.message.get());
}

void installation_complete(ubus_request *request, int) {
    const auto found = std::ranges::find_if(
        installations, [&](const auto &installation) { return &installation->request == request; });
    const std::unique_ptr<Installation> installation = std::move(*found);
    installations.erase(found);
    conclude(*installation);
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

int qzcap_install_app(ubus_context *ctx, const char *url, qzcap_install_handler_t done, void *priv) {
    constexpr const Call &call = call_of("qzcap_install_app");
    std::uint32_t id = 0;
    if (ctx == nullptr || done == nullptr || ubus_lookup_id(ctx, call.object, &id) != 0) {
        return -1;
    }
    Arguments arguments;
    arguments.text("url", url);
    auto installation = std::make_unique<Installation>();
    installation->done = done;
    installation->priv = priv;
    if (ubus_invoke_async(ctx, id, call.method, arguments.head(), &installation->request) != 0) {
        return -1;
    }
    installation->request.priv = installation.get();
    installation->request.data_cb = installation_data;
    installation->request.complete_cb = installation_complete;
    installations.push_back(std::move(installation));
    ubus_complete_request_async(ctx, &installations.back()->request);
    return 0;
}

void arvok::capi::abandon_installations(ubus_context *ctx) {
    for (const auto &installation : std::exchange(installations, {})) {
        ubus_abort_request(ctx, &installation->request);
        installation->message.reset();
        conclude(*installation);
    }
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
