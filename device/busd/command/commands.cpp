// The commands that ask once and end.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>

#include "../protocol.h"
#include "command.h"

namespace arvok {

namespace {

const char *type_name(uint32_t type) {
    switch (type) {
        case BLOBMSG_TYPE_ARRAY:
            return "Array";
        case BLOBMSG_TYPE_TABLE:
            return "Table";
        case BLOBMSG_TYPE_STRING:
            return "String";
        case BLOBMSG_TYPE_INT64:
        case BLOBMSG_TYPE_INT32:
        case BLOBMSG_TYPE_INT16:
            return "Integer";
        case BLOBMSG_TYPE_INT8:
            return "Boolean";
        case BLOBMSG_TYPE_DOUBLE:
            return "Double";
        default:
            return "(unknown)";
    }
}

// A method is a table of argument names and the numbers of their types.
void print_method(blob_attr *method) {
    MessageBuffer line;
    blob_attr *argument;
    size_t rem;

    void *table = blobmsg_open_table(line.get(), blobmsg_name(method));
    blobmsg_for_each_attr(argument, method, rem) {
        if (!blobmsg_check_attr_len(argument, true, rem))
            break;
        const bool known = blobmsg_type(argument) == BLOBMSG_TYPE_INT32;
        blobmsg_add_string(line.get(), blobmsg_name(argument),
                           type_name(known ? blobmsg_get_u32(argument) : uint32_t{BLOBMSG_TYPE_UNSPEC}));
    }
    blobmsg_close_table(line.get(), table);
    const Text text(blobmsg_format_json(line.message(), true));
    if (!text)
        return;
    // Without the braces of the message around the method.
    std::printf("\t%.*s\n", static_cast<int>(std::strlen(text.get())) - 2, text.get() + 1);
}

void print_object(ubus_context *, ubus_object_data *object, void *priv) {
    const auto *session = static_cast<const Session *>(priv);
    blob_attr *method;
    size_t rem;

    if (!session->verbose) {
        std::puts(object->path);
        return;
    }
    std::printf("'%s' @%08" PRIx32 "\n", object->path, object->id);
    blob_for_each_attr(method, object->signature, rem) {
        if (!blobmsg_check_attr_len(method, true, rem))
            break;
        print_method(method);
    }
}

// The optional JSON object that ends a command.
bool add_json(MessageBuffer &buffer, Arguments arguments, size_t index) {
    return arguments.size() <= index || blobmsg_add_json_from_string(buffer.get(), arguments[index]);
}

}  // namespace

int list_objects(Session &session, Arguments arguments) {
    if (!arguments.empty() && std::strcmp(arguments[0], "-v") == 0) {
        session.verbose = true;
        arguments = arguments.subspan(1);
    }
    if (arguments.size() > 1)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return ubus_lookup(session.bus, arguments.empty() ? nullptr : arguments[0], print_object, &session);
}

int call_method(Session &session, Arguments arguments) {
    struct Call {
        const Session &session;
        bool printed;
    } call{session, true};
    MessageBuffer message;
    uint32_t id = 0;

    if (!add_json(message, arguments, 2))
        return STATUS_PARSE_ERROR;
    if (const int status = ubus_lookup_id(session.bus, arguments[0], &id); status != UBUS_STATUS_OK)
        return status;
    const auto print = [](ubus_request *request, int, blob_attr *data) {
        auto *to = static_cast<Call *>(request->priv);
        to->printed = print_message(to->session, data) && to->printed;
    };
    const int status =
        ubus_invoke(session.bus, id, arguments[1], message.message(), print, &call, session.timeout_s * 1000);
    return status == UBUS_STATUS_OK && !call.printed ? STATUS_PARSE_ERROR : status;
}

int send_event(Session &session, Arguments arguments) {
    MessageBuffer message;

    if (!add_json(message, arguments, 1))
        return STATUS_PARSE_ERROR;
    return ubus_send_event(session.bus, arguments[0], message.message());
}

int wait_for_objects(Session &session, Arguments arguments) {
    struct Waiter : ubus_event_handler {
        std::set<std::string> missing;
    };
    // The connection knows it to its end.
    static Waiter waiter{};

    waiter.missing.insert(arguments.begin(), arguments.end());
    waiter.cb = [](ubus_context *, ubus_event_handler *handler, const char *, blob_attr *message) {
        static const blobmsg_policy policy[] = {{.name = "path", .type = BLOBMSG_TYPE_STRING}};
        auto *self = static_cast<Waiter *>(handler);
        blob_attr *path = nullptr;

        blobmsg_parse(policy, 1, &path, blob_data(message), static_cast<unsigned int>(blob_len(message)));
        if (path)
            self->missing.erase(blobmsg_get_string(path));
        if (self->missing.empty())
            uloop_end();
    };

    // Listening comes first, so that none can appear unnoticed between the two.
    int status = ubus_register_event_handler(session.bus, &waiter, "ubus.object.add");
    for (const char *name : arguments) {
        uint32_t id = 0;
        const int found = status == UBUS_STATUS_OK ? ubus_lookup_id(session.bus, name, &id) : status;
        if (found == UBUS_STATUS_OK)
            waiter.missing.erase(name);
        else if (found != UBUS_STATUS_NOT_FOUND)
            status = found;
    }
    if (status != UBUS_STATUS_OK || waiter.missing.empty())
        return status;
    status = run_loop(session, session.timeout_s, UBUS_STATUS_TIMEOUT);
    return status == UBUS_STATUS_OK && !waiter.missing.empty() ? UBUS_STATUS_NO_DATA : status;
}

}  // namespace arvok
