extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "exchange.h"
#include "qzcap.h"

namespace {

using namespace arvok::capi;

/// The one session of this process.
struct Session {
    ubus_context *ctx = nullptr;
    std::vector<ubus_subscriber *> subscribers;  // registered, owned by their callers
};

Session session;

}  // namespace

int qzcap_ubus_start(int) {
    if (session.ctx != nullptr) {
        return -1;
    }
    uloop_init();
    session.ctx = ubus_connect(std::getenv("UBUS_SOCKET"));
    if (session.ctx == nullptr) {
        uloop_done();
        return -1;
    }
    // As the library would, but also after a hang-up, when it would not. An app may have its own way.
    session.ctx->connection_lost = [](ubus_context *) { uloop_end(); };
    ubus_add_uloop(session.ctx);
    return 0;
}

void qzcap_ubus_done() {
    if (session.ctx == nullptr) {
        return;
    }
    abandon_installations();
    for (ubus_subscriber *subscriber : session.subscribers) {
        ubus_unregister_subscriber(session.ctx, subscriber);
    }
    ubus_free(session.ctx);
    forget_objects();
    uloop_done();
    session = Session{};
}

ubus_context *qzcap_get_ubus_context() {
    return session.ctx;
}

uint32_t qzcap_get_objid_by_id(int number) {
    for (const NumberedObject &object : numbered_objects) {
        if (object.number == number) {
            return qzcap_get_objid_by_name(object.name);
        }
    }
    return 0;
}

uint32_t qzcap_get_objid_by_name(const char *name) {
    uint32_t id = 0;
    const bool found =
        session.ctx != nullptr && name != nullptr && ubus_lookup_id(session.ctx, name, &id) == 0;
    return found ? id : 0;
}

int qzcap_ubus_subscribe(ubus_subscriber *subscriber, uint32_t id) {
    if (session.ctx == nullptr || subscriber == nullptr || subscriber->cb == nullptr || id == 0) {
        return -1;
    }
    const bool known = std::ranges::find(session.subscribers, subscriber) != session.subscribers.end();
    if (!known && ubus_register_subscriber(session.ctx, subscriber) != 0) {
        return -1;
    }
    if (ubus_subscribe(session.ctx, subscriber, id) != 0) {
        if (!known) {
            ubus_unregister_subscriber(session.ctx, subscriber);
        }
        return -1;
    }
    if (!known) {
        session.subscribers.push_back(subscriber);
    }
    return 0;
}

int qzcap_ubus_unsubscribe(ubus_subscriber *subscriber, uint32_t id) {
    if (session.ctx == nullptr || std::erase(session.subscribers, subscriber) == 0) {
        return -1;
    }
    const int status = ubus_unsubscribe(session.ctx, subscriber, id);
    ubus_unregister_subscriber(session.ctx, subscriber);
    return status == 0 ? 0 : -1;
}

void qzcap_data_cb(ubus_request *req, int, blob_attr *msg) {
    auto **text = static_cast<char **>(req->priv);
    if (msg != nullptr && text != nullptr) {
        qzcap_free(*text);
        *text = blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1);
    }
}

void qzcap_data_blob_cb(ubus_request *req, int, blob_attr *msg) {
    auto **copy = static_cast<blob_attr **>(req->priv);
    if (msg != nullptr && copy != nullptr) {
        qzcap_free(*copy);
        *copy = blob_memdup(msg);
    }
}

int qzcap_parse_result_and_failreason(const char *reply, char **reason) {
    struct Parsed {
        blob_buf buf{};
        ~Parsed() { blob_buf_free(&buf); }
    } parsed;
    const auto fail = [&](const std::string &text) {
        if (reason != nullptr) {
            *reason = qzcap_strdup(text.c_str());
        }
        return -1;
    };
    if (reason != nullptr) {
        *reason = nullptr;
    }
    if (reply == nullptr) {
        return fail("no answer");
    }
    blob_buf_init(&parsed.buf, 0);
    if (!blobmsg_add_json_from_string(&parsed.buf, reply)) {
        return fail("malformed answer");
    }
    const blobmsg_policy policy[] = {{"result", BLOBMSG_TYPE_INT32}, {"failreason", BLOBMSG_TYPE_STRING}};
    blob_attr *members[2];
    blobmsg_parse(policy, 2, members, blob_data(parsed.buf.head),
                  static_cast<unsigned>(blob_len(parsed.buf.head)));
    std::int64_t result = 0;
    if (members[0] == nullptr || !get_integer(members[0], &result)) {
        return fail("malformed answer");
    }
    if (result == 0) {
        return 0;
    }
    return fail(members[1] != nullptr ? blobmsg_get_string(members[1]) : "result " + std::to_string(result));
}
