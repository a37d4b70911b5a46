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

/// Adds a field to the answer being built.
void add_reply_text(const char *name, const char *text);
void add_reply_int(const char *name, int value);

}  // namespace arvok
