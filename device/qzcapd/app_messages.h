/// Messages to apps that are processes of their own: bus objects named "qzapp." and the app's name.
#ifndef ARVOK_QZCAPD_APP_MESSAGES_H
#define ARVOK_QZCAPD_APP_MESSAGES_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubus.h>
}

namespace arvok::qzcapd {

class AppMessages {
  public:
    /// Gets the bus status and the app's answer, null when there is none.
    using Done = std::function<void(int status, blob_attr *answer)>;

    /// The context must outlive this.
    explicit AppMessages(ubus_context *ctx);
    ~AppMessages();
    AppMessages(const AppMessages &) = delete;
    AppMessages &operator=(const AppMessages &) = delete;

    /// The bus object of an app; 0: it has none.
    std::uint32_t find(const std::string &app);

    /// Hands the message to the object. Returns a bus status; when that is 0, `done` is called exactly once,
    /// later, at the latest after `timeout_ms` milliseconds.
    int send(std::uint32_t object, blob_attr *message, int timeout_ms, Done done);

    /// Ends the messages that are still unanswered, with UBUS_STATUS_CONNECTION_FAILED.
    void end_all();

  private:
    struct Pending;
    void conclude(Pending *pending, int status);

    ubus_context *ctx_;
    std::vector<std::unique_ptr<Pending>> pending_;
};

}  // namespace arvok::qzcapd

#endif
