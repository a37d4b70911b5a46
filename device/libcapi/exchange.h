/// One call of the platform: a request to the object that serves it, and its answer, checked.
#ifndef ARVOK_CAPI_EXCHANGE_H
#define ARVOK_CAPI_EXCHANGE_H

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "calls.h"
#include "qzcap.h"
#include "record.h"

namespace arvok::capi {

/// How long the platform may take to answer, in milliseconds: 3000, or what $QZCAP_TIMEOUT says, for tests.
int call_timeout();

struct FreeBlob {
    void operator()(blob_attr *attr) const { std::free(attr); }
};
using blob_ptr = std::unique_ptr<blob_attr, FreeBlob>;

/// The arguments of a call.
class Arguments {
  public:
    Arguments() { blob_buf_init(&buf_, 0); }
    ~Arguments() { blob_buf_free(&buf_); }
    Arguments(const Arguments &) = delete;
    Arguments &operator=(const Arguments &) = delete;

    /// A null text is left out, so that the platform refuses the call when it needs it.
    Arguments &text(const char *name, const char *value);
    Arguments &number(const char *name, std::int64_t value);
    Arguments &texts(const char *name, const char *const *values, unsigned int count);
    /// The settable fields, as table `record`; null is left out.
    Arguments &record(const Record &kind, const void *value);

    blob_attr *head() const { return buf_.head; }

  private:
    blob_buf buf_{};
};

struct Answer {
    int result = -1;  ///< 0 on success, else negative
    blob_ptr message;

    /// A member of a successful answer, or null when there is none of this blobmsg type.
    blob_attr *member(const char *name, int type) const;
};

/// Makes the call and waits for its answer. On failure `errtext`, when not null, says why.
Answer exchange(const Call &call, const Arguments &arguments, char **errtext);

/// Forgets where the platform's objects are. At the end of a session.
void forget_objects();

/// The call's whole result is success or failure.
int perform(const Call &call, const Arguments &arguments, char **errtext);

/// As perform, for calls that answer with a `value` of 0 or more.
int perform_for_value(const Call &call, const Arguments &arguments, char **errtext);

/// The call answers with a text.
char *fetch_text(const Call &call, const Arguments &arguments, char **errtext);

/// The call answers with a record.
template <typename T>
T *fetch(const Call &call, const Record &kind, const Arguments &arguments) {
    const Answer answer = exchange(call, arguments, nullptr);
    blob_attr *table = answer.member("record", BLOBMSG_TYPE_TABLE);
    return table != nullptr ? static_cast<T *>(take_record(kind, table)) : nullptr;
}

/// The call answers with a list of records; `count` and `list` are set on success only.
int fetch_list(const Call &call, const Record &kind, const Arguments &arguments, unsigned int *count,
               void ***list);

template <typename T>
int fetch_list(const Call &call, const Record &kind, const Arguments &arguments, unsigned int *count,
               T ***list) {
    void **records = nullptr;
    const int result = fetch_list(call, kind, arguments, count, &records);
    if (result == 0) {
        *list = reinterpret_cast<T **>(records);
    }
    return result;
}

template <typename T>
void free_list(const Record &kind, unsigned int count, T **list) {
    for (unsigned int i = 0; list != nullptr && i < count; ++i) {
        free_record(kind, list[i]);
    }
    qzcap_free(list);
}

/// Ends the installations that are still under way, telling their callers, because the session ends.
void abandon_installations();

}  // namespace arvok::capi

#endif
