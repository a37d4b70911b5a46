// What the `ubus` command is made of.
#pragma once

#include <memory>
#include <span>
#include <string>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace arvok {

/// The connection and the options that go before the command.
struct Session {
    ubus_context *bus = nullptr;
    bool simple = false;  ///< one line per answer
    bool verbose = false;
    int timeout_s = 30;    ///< 0 is no limit
    bool limited = false;  ///< the time limit was given
};

using Arguments = std::span<const char *const>;

/// The exit code without a bus.
inline constexpr int CANNOT_CONNECT = 255;

/// Each command gets a number of arguments that it can have, and returns a UBUS_STATUS_*.
int list_objects(Session &session, Arguments arguments);
int call_method(Session &session, Arguments arguments);
int send_event(Session &session, Arguments arguments);
int wait_for_objects(Session &session, Arguments arguments);
int subscribe(Session &session, Arguments arguments);
int listen(Session &session, Arguments arguments);

/// A message to be sent.
class MessageBuffer {
  public:
    MessageBuffer() { blob_buf_init(&buffer_, 0); }
    ~MessageBuffer() { blob_buf_free(&buffer_); }
    MessageBuffer(const MessageBuffer &) = delete;
    MessageBuffer &operator=(const MessageBuffer &) = delete;

    blob_buf *get() { return &buffer_; }
    blob_attr *message() { return buffer_.head; }

  private:
    blob_buf buffer_{};
};

struct FreeText {
    void operator()(char *text) const;
};
using Text = std::unique_ptr<char, FreeText>;

/// Prints a message as JSON, indented unless the session is simple. False when it is malformed or cannot be
/// written.
bool print_message(const Session &session, blob_attr *message);

/// Prints the line {"name":{...}}. False as above.
bool print_named(const char *name, blob_attr *message);

/// Runs the loop until it is ended, the connection is lost, or the time limit passes: UBUS_STATUS_OK,
/// UBUS_STATUS_CONNECTION_FAILED or `at_limit`. A limit of 0 is none.
int run_loop(Session &session, int limit_s, int at_limit);

}  // namespace arvok
