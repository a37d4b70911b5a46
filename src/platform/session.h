#pragma once
/// The session with the platform: its bus, notifications of its objects, this process as one of its apps.

#include <cstdint>
#include <string>
#include <string_view>

#include "base/bus_message.h"
#include "base/callback.h"
#include "platform/records.h"

namespace arvok::platform {

/// The connection to the bus, as long as it lives. The log goes through the platform from its beginning on.
/// When the bus goes, the loop ends.
class session {
  public:
    session();
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    /// Whether there is a bus. Without one the process cannot go on.
    bool is_open() const { return open_; }

  private:
    bool open_;
};

/// The bus id of an object; 0 when it is absent.
std::uint32_t object_id(const std::string &name);
std::uint32_t object_id(qzcap_object number);

/// Hears the notifications of one object, until its end.
class subscription {
  public:
    /// `method` is terminated by a zero; `message` is null when a notification has none. Answers whoever
    /// waits for one: 0, or -1 for a failure.
    using handler = callback<int(std::string_view method, blob_attr *message)>;

    explicit subscription(handler notified);
    ~subscription();
    subscription(const subscription &) = delete;
    subscription &operator=(const subscription &) = delete;

    /// False when the object cannot be subscribed to.
    bool start(std::uint32_t object);
    /// Ends it at the object, which has another id when it was published anew meanwhile. Returns whether the
    /// platform knew of it.
    bool stop(std::uint32_t object);

  private:
    handler notified_;
    owned<ubus_subscriber, subscription> subscriber_;
    bool started_ = false;
};

/// This process as an app of the device, until its end: takes messages of other apps. There is one at a time,
/// for the platform does not tell its callback for whom it calls.
class app_registration {
  public:
    /// Answers one message; null when the call had none.
    using handler = callback<void(blob_attr *message, bus_message &reply)>;

    explicit app_registration(handler answer);
    ~app_registration();
    app_registration(const app_registration &) = delete;
    app_registration &operator=(const app_registration &) = delete;

  private:
    handler answer_;
    qzcap_appmgtcb callbacks_;
    void *handle_;
};

}  // namespace arvok::platform
