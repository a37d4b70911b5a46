#pragma once
/// The cloud client: one TCP connection, as a client, to the operator's management platform; first to its
/// bootstrap server, which names business servers, then to one of those.
///
/// connection     the socket, sending and receiving, the two protocol timers
/// frame          what a message looks like on the wire, and how it is encrypted in each stage
/// connector      when and to which server the device connects (resolution: its address)
/// enrolment      Boot, GetChallengeCode, Activate, Connect, Heartbeat
/// settings       servers and identity across restarts (server: what one is)
/// dispatch       the platform's messages by name
/// reply          how its requests are answered
/// plugins        its requests about the device's apps (plugin_id: what it calls them)
/// app_messages   its messages to an app

#include <optional>
#include <string>

#include "base/clock.h"
#include "base/task_queue.h"
#include "cloud/app_messages.h"
#include "cloud/connection.h"
#include "cloud/connector.h"
#include "cloud/enrolment.h"
#include "cloud/plugins.h"
#include "cloud/server.h"
#include "cloud/settings.h"
#include "platform/cache.h"

namespace arvok::cloud {

struct options {
    std::optional<server> bss;  ///< a valid bootstrap server, given by the user: nothing stored counts
    bool debug = false;         ///< short delays
};

class client {
  public:
    /// Loads servers and identity. The cache must have its device record. Between the client's end and the
    /// queue's the loop must not turn.
    client(task_queue &queue, platform::cache &cache, wall_clock clock, const options &given,
           const agent_services &agent);
    /// Disconnects.
    ~client() { connection_.disconnect(); }

    /// Connects for the first time.
    void start() { connector_.run(); }

    /// The WAN, which the platform is behind, has come up: connects unless there is a connection.
    void wan_up();
    /// It has gone down: disconnects; true when there was a connection.
    bool wan_down();

    /// Tells the platform something on the agent's behalf, on the loop's next turn.
    void send_notification(std::string message) { plugins_.notify(std::move(message)); }

    /// The reply of a link message that was to follow (app_messages.h).
    void link_message_answered(json::value reply) { app_messages_.link_message_answered(std::move(reply)); }

    // --- for GET_STATUS ---

    /// The server of the connection at hand, or else of the next, as "host:port"; empty when none is known.
    std::string server_text() const;
    /// The connection's state in words, for people.
    std::string status_words();
    /// Milliseconds until each timer fires, -1: not armed.
    int reconnect_remaining() { return connector_.remaining(); }
    int heartbeat_remaining() { return connection_.heartbeat_remaining(); }
    int acknowledgement_remaining() { return connection_.acknowledgement_remaining(); }

  private:
    void receive(json::view message);

    settings settings_;
    connection connection_;
    connector connector_;
    enrolment enrolment_;
    plugins plugins_;
    app_messages app_messages_;
};

}  // namespace arvok::cloud
