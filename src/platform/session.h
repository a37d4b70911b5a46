#pragma once
/// The session with the platform: its bus, the objects on it, this process as one of its apps.

#include <cstdint>
#include <optional>
#include <string>

#include "base/bus_message.h"
#include "base/callback.h"
#include "platform/gate.h"
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
    std::optional<gate> gate_;
};

/// While it lives the process waits for the bus's daemon. The library does so without limit, and the daemon
/// drops its answer when too much waits for us: without one in 20 s the process ends, with a log line and
/// status 1, and is started again.
class daemon_wait {
  public:
    daemon_wait();
    ~daemon_wait();
    daemon_wait(const daemon_wait &) = delete;
    daemon_wait &operator=(const daemon_wait &) = delete;
};

/// Ends the loop, with a log line: what a connection to the bus does when it is lost.
void end_with_bus(ubus_context *);

/// Whether something that has come on the connection has not been read.
bool has_unread(const ubus_context &bus);

/// The bus id of an object; 0 when it is absent.
std::uint32_t object_id(const std::string &name);
std::uint32_t object_id(qzcap_object number);

/// This process as an app of the device, until its end: takes messages of other apps. There is one at a time,
/// for the platform does not tell its callback for whom it calls.
class app_registration {
  public:
    /// Answers one message; null when the call had none. Of an answer of more than 768 KiB the caller is only
    /// told that it is too long: the bus's daemon disconnects whoever sends it more than it carries.
    using handler = callback<void(blob_attr *message, bus_message &reply)>;

    explicit app_registration(handler answer);
    ~app_registration();
    app_registration(const app_registration &) = delete;
    app_registration &operator=(const app_registration &) = delete;

    /// Its id on the bus; 0 when it is not there.
    std::uint32_t object() const { return object_; }

  private:
    bool has_more();

    handler answer_;
    qzcap_appmgtcb callbacks_;
    void *handle_;
    std::uint32_t object_;
};

/// Whether this process is to serve the object: whoever called it from here would wait for himself.
bool is_own_object(std::uint32_t id);

}  // namespace arvok::platform
