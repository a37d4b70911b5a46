#include "exchange.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <map>
#include <string>

namespace arvok::capi {
namespace {

void set_error(char **errtext, const std::string &text) {
    if (errtext != nullptr) {
        *errtext = qzcap_strdup(text.c_str());
    }
}

void keep_answer(ubus_request *req, int, blob_attr *msg) {
    auto &kept = *static_cast<blob_ptr *>(req->priv);
    if (msg != nullptr) {
        kept.reset(blob_memdup(msg));
    }
}

blob_attr *find(blob_attr *table, const char *name, int type) {
    blob_attr *attr = nullptr;
    std::size_t rem = 0;
    blobmsg_for_each_attr(attr, table, rem) {
        if (blobmsg_check_attr(attr, true) && std::strcmp(blobmsg_name(attr), name) == 0) {
            return blobmsg_type(attr) == type ? attr : nullptr;
        }
    }
    return nullptr;
}

// Where the platform's objects were found last, so that a call is one exchange and not two.
std::map<std::string, std::uint32_t> known_objects;

int find_object(ubus_context *ctx, const char *object, std::uint32_t *id) {
    const int status = ubus_lookup_id(ctx, object, id);
    if (status == 0) {
        known_objects[object] = *id;
    } else {
        known_objects.erase(object);
    }
    return status;
}

int read_timeout() {
    constexpr int usual = 3000, longest = 60000;
    const char *text = std::getenv("QZCAP_TIMEOUT");
    int timeout = 0;
    if (text != nullptr) {
        std::from_chars(text, text + std::strlen(text), timeout);
    }
    return timeout > 0 && timeout <= longest ? timeout : usual;
}

// One call. An object that is gone from where it was may stand elsewhere, after a restart of its daemon.
int invoke(ubus_context *ctx, const Call &call, const Arguments &arguments, blob_ptr &message) {
    const auto known = known_objects.find(call.object);
    std::uint32_t id = known != known_objects.end() ? known->second : 0;
    if (id == 0) {
        if (const int status = find_object(ctx, call.object, &id); status != 0) {
            return status;
        }
    }
    const std::uint32_t tried = id;
    int status = ubus_invoke(ctx, id, call.method, arguments.head(), keep_answer, &message, call_timeout());
    if (status == UBUS_STATUS_NOT_FOUND && find_object(ctx, call.object, &id) == 0 && id != tried) {
        status = ubus_invoke(ctx, id, call.method, arguments.head(), keep_answer, &message, call_timeout());
    }
    return status;
}

}  // namespace

int call_timeout() {
    static const int timeout = read_timeout();
    return timeout;
}

void forget_objects() {
    known_objects.clear();
}

Arguments &Arguments::text(const char *name, const char *value) {
    if (value != nullptr) {
        blobmsg_add_string(&buf_, name, value);
    }
    return *this;
}

Arguments &Arguments::number(const char *name, std::int64_t value) {
    if (value >= std::numeric_limits<std::int32_t>::min() &&
        value <= std::numeric_limits<std::int32_t>::max()) {
        blobmsg_add_u32(&buf_, name, static_cast<std::uint32_t>(value));
    } else {
        blobmsg_add_u64(&buf_, name, static_cast<std::uint64_t>(value));
    }
    return *this;
}

Arguments &Arguments::texts(const char *name, const char *const *values, unsigned int count) {
    void *array = blobmsg_open_array(&buf_, name);
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        blobmsg_add_string(&buf_, nullptr, values[i] != nullptr ? values[i] : "");
    }
    blobmsg_close_array(&buf_, array);
    return *this;
}

Arguments &Arguments::record(const Record &kind, const void *value) {
    if (value != nullptr) {
        void *table = blobmsg_open_table(&buf_, "record");
        put_record(&buf_, kind, value, Fields::settable);
        blobmsg_close_table(&buf_, table);
    }
    return *this;
}

blob_attr *Answer::member(const char *name, int type) const {
    return result == 0 ? find(message.get(), name, type) : nullptr;
}

Answer exchange(const Call &call, const Arguments &arguments, char **errtext) {
    Answer answer;
    if (errtext != nullptr) {
        *errtext = nullptr;
    }
    ubus_context *ctx = qzcap_get_ubus_context();
    if (ctx == nullptr) {
        set_error(errtext, "no bus session");
        return answer;
    }
    const std::string where = std::string(call.object) + " " + call.method + ": ";
    blob_ptr message;
    if (const int status = invoke(ctx, call, arguments, message); status != 0) {
        set_error(errtext, where + ubus_strerror(status));
        return answer;
    }
    std::int64_t result = 0;
    blob_attr *number = message ? find(message.get(), "result", BLOBMSG_TYPE_INT32) : nullptr;
    if (number == nullptr || !get_integer(number, &result)) {
        set_error(errtext, where + "no result in the answer");
        return answer;
    }
    if (result != 0) {
        blob_attr *reason = find(message.get(), "failreason", BLOBMSG_TYPE_STRING);
        set_error(errtext, reason != nullptr ? blobmsg_get_string(reason)
                                             : where + "failed with result " + std::to_string(result));
        answer.result = result < 0 ? static_cast<int>(result) : -1;
        return answer;
    }
    answer.result = 0;
    answer.message = std::move(message);
    return answer;
}

int perform(const Call &call, const Arguments &arguments, char **errtext) {
    return exchange(call, arguments, errtext).result;
}

int perform_for_value(const Call &call, const Arguments &arguments, char **errtext) {
    const Answer answer = exchange(call, arguments, errtext);
    if (answer.result != 0) {
        return answer.result;
    }
    std::int64_t value = -1;
    blob_attr *attr = answer.member("value", BLOBMSG_TYPE_INT32);
    if (attr == nullptr || !get_integer(attr, &value) || value < 0) {
        set_error(errtext, std::string(call.object) + " " + call.method + ": no value in the answer");
        return -1;
    }
    return static_cast<int>(value);
}

char *fetch_text(const Call &call, const Arguments &arguments, char **errtext) {
    const Answer answer = exchange(call, arguments, errtext);
    if (answer.result != 0) {
        return nullptr;
    }
    blob_attr *text = answer.member("text", BLOBMSG_TYPE_STRING);
    if (text == nullptr) {
        set_error(errtext, std::string(call.object) + " " + call.method + ": no text in the answer");
        return nullptr;
    }
    return qzcap_strdup(blobmsg_get_string(text));
}

int fetch_list(const Call &call, const Record &kind, const Arguments &arguments, unsigned int *count,
               void ***list) {
    const Answer answer = exchange(call, arguments, nullptr);
    if (answer.result != 0) {
        return answer.result;
    }
    blob_attr *array = answer.member("list", BLOBMSG_TYPE_ARRAY);
    if (array == nullptr) {
        return -1;
    }
    unsigned int length = 0;
    blob_attr *attr = nullptr;
    std::size_t rem = 0;
    blobmsg_for_each_attr(attr, array, rem) {
        ++length;
    }
    // Never null, even when empty: callers tell a list that was fetched from one that was not.
    auto **records = static_cast<void **>(qzcap_calloc(std::size_t{length} + 1, sizeof(void *)));
    if (records == nullptr) {
        return -1;
    }
    unsigned int taken = 0;
    blobmsg_for_each_attr(attr, array, rem) {
        if (!blobmsg_check_attr(attr, false) || blobmsg_type(attr) != BLOBMSG_TYPE_TABLE ||
            (records[taken] = take_record(kind, attr)) == nullptr) {
            free_list(kind, taken, records);
            return -1;
        }
        ++taken;
    }
    *count = taken;
    *list = records;
    return 0;
}

}  // namespace arvok::capi
