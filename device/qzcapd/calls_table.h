/// How the emulated device answers the platform's calls: a row per call.
#ifndef ARVOK_QZCAPD_CALLS_TABLE_H
#define ARVOK_QZCAPD_CALLS_TABLE_H

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "calls.h"
#include "failures.h"
#include "json.h"
#include "record.h"

namespace arvok::qzcapd {

class Apps;

/// What the platform tells its subscribers.
struct Notification {
    int object;  ///< platform object number
    std::string method;
    json_ptr message;
    int delay_ms = 0;  ///< after the call that causes it
};

struct Reply;
/// Gives the caller its reply; to be called once, within the daemon's life.
using Responder = std::function<void(const Reply &reply)>;

/// The answer to a call: {"result": 0, ...} or {"result": -1, "failreason": "..."}.
struct Reply {
    bool ok = true;
    json_ptr body;
    std::vector<Notification> notifications;  ///< beyond those that follow from the change of state
    std::function<void(Responder)> later;     ///< instead of a body: finds the answer while others are served
};

Reply done();
Reply refused(const std::string &reason);
Reply with_record(json_ptr record);
Reply with_list(json_ptr array);
Reply with_text(const std::string &text);
Reply with_value(double value);

struct Param {
    enum class Type { text, number, texts, record } type;
    const char *name;
    bool required = true;
    const capi::Record *kind = nullptr;  ///< of a record, whose settable fields may be present
};

/// What a handler works on. A handler that refuses may leave the state half changed: it is put back.
struct World {
    cJSON *state;
    const cJSON *factory;  ///< the state at the start of the daemon
    Apps &apps;
    Failures &failures;
};

/// Called with arguments that fit the row's parameters.
using Handler = Reply (*)(World &world, const cJSON *args);

struct Row {
    const capi::Call *call;
    bool changes;  ///< may change what subscribers are told, or leave half a change when it fails
    std::vector<Param> params;
    Handler handler;
};

/// The rows, by subject.
std::span<const Row> system_rows();
std::span<const Row> wifi_rows();
std::span<const Row> ap_rows();
std::span<const Row> station_rows();
std::span<const Row> app_rows();

/// The row of a bus method, or null.
const Row *find_row(const std::string &object, const std::string &method);

/// What is wrong with a call's arguments; empty: nothing.
std::string check_arguments(const Row &row, const cJSON *args);

/// The notifications that a change of state causes.
std::vector<Notification> announcements(const cJSON *before, const cJSON *after);

/// The stored record `name` as the answer to a call, or a refusal when the device has none.
Reply stored_record(const World &world, const capi::Record &kind, const std::string &name);

/// The record argument's settable fields go into the stored record `name`, which comes to be if need be.
Reply set_stored_record(World &world, const capi::Record &kind, const std::string &name, const cJSON *args);

/// A text argument that is one of two words, or the refusal that names it.
bool is_one_of(const char *text, const char *first, const char *second);

}  // namespace arvok::qzcapd

#endif
