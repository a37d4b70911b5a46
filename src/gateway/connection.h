#pragma once
/// The connection to the gateway: its address, what is sent and received, keepalives, and when it is tried
/// again.

#include <optional>
#include <string>
#include <string_view>

#include "base/crypto.h"
#include "base/deadline.h"
#include "base/frame_reader.h"
#include "base/json.h"
#include "base/loop.h"
#include "base/memory.h"
#include "base/outbox.h"
#include "base/task_queue.h"
#include "gateway/gateway.h"
#include "gateway/request.h"

namespace arvok::gateway {

/// An outgoing message.
struct message {
    json::object body = {};
    bool quiet = false;      ///< not logged
    int ack_timeout_ms = 0;  ///< until an acknowledgement must have come; 0: none awaited
};

/// The one connection. It keeps trying: after a failure the next attempt is 10 seconds later. A connection
/// that the gateway ends less than 30 seconds after the negotiation began is a short one; after three in a
/// row the next attempt waits four hours.
///
/// `tasks`, `cache`, `state` and whoever is informed are borrowed. All must be there while it is connected;
/// tasks that it has posted must not run after its end.
class connection {
  public:
    struct listeners {
        callback<void()> opened;  ///< a connection is under way: what is sent now is its first message
        callback<void(json::view)> received;
        callback<void()> closed;  ///< disconnected: nothing of the negotiation counts any more
    };

    connection(task_queue &tasks, platform::cache &cache, options where, link_state &state,
               const listeners &informed);

    /// Tries to connect, and arms the next attempt when that cannot even be tried.
    void connect();
    /// Closes the connection and forgets the key; no further attempt is armed.
    void disconnect();
    /// After a fault of the gateway's: disconnects, and connects again 10 seconds later.
    void fail();
    /// On the loop's next turn, and once whatever the number of calls: disconnects, and connects again a
    /// second later.
    void start_over();

    /// A message with its envelope: "type", "sequence" (a number that it uses up) and "mac".
    message new_message(std::string_view type, int ack_timeout_ms = 0);
    /// Sends a message of the negotiation, a keepalive or a reply. Without a connection it goes nowhere; one
    /// that is too long goes nowhere either, after a log line.
    void send(message what);
    void send(json::value body);
    /// Sends what nobody has asked for. It is dropped (base/outbox.h) without a connection, before the
    /// registration, while a key is negotiated anew, for then it would go out in clear, and when there is no
    /// room.
    void tell(message what) { outbox_.send(what.body.take()); }
    /// Whether it would be taken if it had at least so many bytes; else it counts as dropped.
    bool expects(std::size_t bytes) { return outbox_.expects(bytes); }
    /// The same on the loop's next turn.
    void post(message what) { outbox_.post(what.body.take()); }

    /// Nothing more is read from the gateway until release(): the reply of its last message is still to come.
    void hold() { stream_.hold(); }
    void release() { stream_.release(); }

    /// More than the message that is being handled has come.
    bool has_input() { return stream_.has_input(); }
    /// This device's address on the connection.
    std::string local_address() const;

    // --- what the negotiation and the dispatcher know ---

    /// From here on a connection that breaks counts as a short one or as a long one, as the class tells.
    void negotiation_began();
    /// Bodies are encrypted from here on, until the key is forgotten.
    void use_key(const aes_key &key) { cipher_.emplace(aes_mode::cbc, key); }
    void forget_key() { cipher_.reset(); }
    /// Registered: keepalives begin.
    void keep_alive();
    /// The acknowledgement that was waited for has come.
    void acknowledged() { ack_.cancel(); }
    /// Whether a message acknowledges the last keepalive.
    bool is_keepalive_ack(json::view message) const;
    void keepalive_acknowledged();

  private:
    std::optional<std::string> next_address();
    void readable(std::size_t available);
    void receive(std::string &body);
    void broken();
    bool was_refused();
    bool transmit(json::value body, bool quiet);
    bool is_ready() { return stream_.is_open() && state_.linked && !negotiating_; }
    void write(json::value body) { send(std::move(body)); }
    void ack_missing();
    void send_keepalive();
    void keepalive_ack_missing();

    task_queue &tasks_;
    platform::cache &cache_;
    const options where_;
    link_state &state_;
    const listeners listeners_;
    stream stream_;
    frame_reader frames_;
    std::optional<aes> cipher_;
    outbox outbox_;
    timer reconnect_, keepalive_;
    deadline ack_, keepalive_ack_;
    memory_return memory_;
    int sequence_ = 0;              ///< of the next message
    int keepalive_sequence_ = -1;   ///< of the last keepalive; -1: none yet
    bool default_tried_ = false;    ///< the next attempt looks for the gateway
    bool starting_over_ = false;    ///< on the loop's next turn
    bool negotiating_ = false;      ///< from "dh" to the registration
    long negotiating_since_s_ = 0;  ///< uptime; 0: not yet
    int short_connections_ = 0;     ///< in a row
};

}  // namespace arvok::gateway
