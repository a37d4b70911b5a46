#pragma once
/// Command messages of other apps on the device, and of the platform on their behalf: a flat table with a
/// "CmdType" in, a flat table out.

extern "C" {
#include <libubus.h>
}

namespace arvok {

/// Runs one command and builds its answer in g_ctx.blob_buf, where it stays until the next command; it is
/// sent when `request` is not null. A ubus_handler_t; always 0.
int arvok_postmsg(ubus_context *ctx, ubus_object *object, ubus_request_data *request, const char *method,
                  blob_attr *msg);

/// Adds a field to the answer being built; a null text is written as "".
void add_reply_text(const char *name, const char *text);
void add_reply_int(const char *name, int value);

/// How a command ended, as "FailReason" and then "Status".
void add_reply_outcome(const char *reason, const char *status);
/// That it went well, as "Status" and then "FailReason".
void add_reply_success();

/// A table or an array inside the answer: what is added while this lives goes into it. Nested ones end in the
/// reverse order; a member of an array has no name.
class reply_nest {
  public:
    ~reply_nest();
    reply_nest(const reply_nest &) = delete;
    reply_nest &operator=(const reply_nest &) = delete;

  protected:
    reply_nest(const char *name, bool array);

  private:
    void *cookie_;
};

struct reply_table : reply_nest {
    explicit reply_table(const char *name = nullptr) : reply_nest(name, false) {}
};

struct reply_array : reply_nest {
    explicit reply_array(const char *name) : reply_nest(name, true) {}
};

}  // namespace arvok
