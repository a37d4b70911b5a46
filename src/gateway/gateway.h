#pragma once
/// The gateway link: one TCP connection, as a client, to the home gateway, and the JSON messages on it.
///
/// connection     the socket, sending and receiving, keepalives, when it is tried again
/// frame          what a message looks like on the wire
/// negotiation    key agreement and registration
/// dispatch       message types and what follows their handlers
/// request        one message while it is handled (request_members: what it says)
/// handlers       what follows, as the dispatcher calls it:
/// configuration  "cfg": its table of settings (settings.h: what the rows do)
/// status         "get_status": its table of items (status_items.h: what the rows do)
/// steering       stations: how they are heard, and where they should go
/// control        commands of the gateway to the device
/// bus_bridge     the platform's bus for the gateway
/// reports        what the device tells on its own
/// first_seen     when each LAN host was first seen, for the reports
///
/// Everything runs on the loop thread.

#include <memory>
#include <optional>
#include <string>

#include "base/callback.h"
#include "base/clock.h"
#include "base/json.h"
#include "base/task_queue.h"
#include "platform/cache.h"
#include "platform/subscription.h"

namespace arvok::gateway {

/// The owner of the beacon elements that the gateway has this program send. Those of an earlier run are
/// removed by it.
inline constexpr char beacon_owner[] = "arvokclt";

/// What the link has for the cloud.
struct cloud_listeners {
    /// A notification of a bus object that the cloud subscribed to, or a report that it asked for; empty for
    /// one that is too long.
    callback<void(std::string)> notify = {};
    /// The reply of a message that could not be answered at once; none when it was not handled.
    callback<void(json::value)> answer = {};
};

struct options {
    std::optional<std::string> address;  ///< the gateway's; none: it is found at each connection
};

class reports;

class client {
  public:
    /// The cache has a device record when the link starts.
    client(task_queue &tasks, platform::cache &cache, platform::object_watch &objects, wall_clock now,
           options where, const cloud_listeners &cloud);
    /// Disconnects, and ends the subscriptions to bus objects without telling anybody any more.
    ~client();

    /// Gateway sync, as the platform's switch says.
    void set_sync(bool on);
    bool sync_is_on() const;
    /// The switch has been turned on: besides, the link starts over on the loop's next turn.
    void sync_turned_on();

    /// Connects for the first time.
    void start();
    /// Registered with the gateway.
    bool is_linked() const;

    // --- requests through the cloud ---

    /// Runs one message. Its reply; none when it was not handled, and for "qlink". The device actions that it
    /// asks for wait. Nothing when it calls bus objects: then the reply follows, it asks for no actions, and
    /// no other message may come until then.
    std::optional<json::value> handle_cloud_message(json::view message);
    /// Nobody waits for that reply any more: what is under way is aborted.
    void abandon_cloud_message();
    /// Those of an earlier message must not run again.
    void forget_actions();
    /// Resets or restarts the device when the last message asked for that.
    void run_actions();

    /// For what the platform notified (reports.h).
    reports &reporting();

  private:
    struct modules;
    std::unique_ptr<modules> modules_;
};

}  // namespace arvok::gateway
