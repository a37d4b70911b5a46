// The commands that print what happens until they are stopped.
#include <cstdio>

#include "command.h"

namespace arvok {

namespace {

// A line that cannot be written any more has no reader: then there is nothing left to do.
void print_or_end(const char *name, blob_attr *message) {
    if (!print_named(name, message) && std::ferror(stdout))
        uloop_end();
}

}  // namespace

int run_loop(Session &session, int limit_s, int at_limit) {
    struct Limit : uloop_timeout {
        bool reached;
    } limit{};
    static bool lost;

    lost = false;
    limit.cb = [](uloop_timeout *timer) {
        static_cast<Limit *>(timer)->reached = true;
        uloop_end();
    };
    session.bus->connection_lost = [](ubus_context *) {
        lost = true;
        uloop_end();
    };
    ubus_add_uloop(session.bus);
    if (limit_s > 0)
        uloop_timeout_set(&limit, limit_s * 1000);
    uloop_run();
    uloop_timeout_cancel(&limit);
    if (lost)
        return UBUS_STATUS_CONNECTION_FAILED;
    return limit.reached ? at_limit : UBUS_STATUS_OK;
}

int subscribe(Session &session, Arguments arguments) {
    // The connection knows it to its end.
    static ubus_subscriber subscriber{};

    subscriber.cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                       blob_attr *message) {
        print_or_end(method, message);
        return int{UBUS_STATUS_OK};
    };
    subscriber.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t id) {
        std::fprintf(stderr, "Object %08x went away\n", id);
    };
    int status = ubus_register_subscriber(session.bus, &subscriber);
    for (const char *path : arguments) {
        uint32_t id = 0;
        if (status == UBUS_STATUS_OK)
            status = ubus_lookup_id(session.bus, path, &id);
        if (status == UBUS_STATUS_OK)
            status = ubus_subscribe(session.bus, &subscriber, id);
    }
    if (status != UBUS_STATUS_OK)
        return status;
    return run_loop(session, session.limited ? session.timeout_s : 0, UBUS_STATUS_OK);
}

int listen(Session &session, Arguments arguments) {
    static const char *const everything[] = {"*"};
    static ubus_event_handler handler{};
    int status = UBUS_STATUS_OK;

    handler.cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *message) {
        print_or_end(type, message);
    };
    for (const char *pattern : arguments.empty() ? Arguments(everything) : arguments)
        if (status == UBUS_STATUS_OK)
            status = ubus_register_event_handler(session.bus, &handler, pattern);
    if (status != UBUS_STATUS_OK)
        return status;
    return run_loop(session, session.limited ? session.timeout_s : 0, UBUS_STATUS_OK);
}

}  // namespace arvok
