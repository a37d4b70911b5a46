#pragma once
/// The connection to the platform's server at hand: what goes over it, and the two timers of the protocol.
/// What messages mean and what follows a failure is decided elsewhere.

#include <string>
#include <string_view>

#include "base/deadline.h"
#include "base/frame_reader.h"
#include "base/json.h"
#include "base/loop.h"
#include "base/memory.h"
#include "base/outbox.h"
#include "base/stream.h"
#include "base/task_queue.h"
#include "cloud/frame.h"
#include "platform/cache.h"

namespace arvok::cloud {

/// Why a connection cannot go on; it is still open.
enum class failure {
    garbled,     ///< what came in is no frame
    broken,      ///< closed by the other side, or by the network
    unanswered,  ///< an acknowledgement has not come in time
    not_queued,  ///< a message that asks for an acknowledgement could not be posted
};

class connection {
  public:
    struct handlers {
        callback<void(json::view)> received;  ///< any JSON value; may disconnect
        callback<void()> heartbeat_due;
        callback<void(failure)> failed;
        callback<void()> closed;  ///< disconnected
    };

    /// All but `callbacks` is borrowed.
    connection(task_queue &queue, const platform::cache &cache, const handlers &callbacks);

    /// Takes a connecting socket over. The connection before must have been closed.
    void open(int fd);
    /// Closes the connection and forgets its keys. A lost business connection begins again with the challenge
    /// code.
    void disconnect();
    /// There is a socket, be it that it still connects.
    bool is_open() const { return stream_.is_open(); }
    /// Its local IPv4 address, or "".
    std::string local_address() const;

    /// Where it stands, also between connections.
    stage at() const { return stage_; }
    /// From here on frames are encrypted as this stage asks for.
    void enter(stage next) { stage_ = next; }
    /// Makes the key for the answer to the next message, to be sent with it.
    std::string new_client_key();
    /// The platform has agreed: connected from here on.
    void enter_connected(std::string_view server_key);

    /// A message's beginning: {"RPCMethod": method, "MAC": the device's}
    json::object message(const char *method) const;
    /// Sends a message on the loop's next turn, where the stage of then decides how. Without a connection it
    /// is dropped. An acknowledgement must come.
    void ask(json::value message);
    /// The same, awaiting nothing: what is told of the device's own accord. Unless connected, and when there
    /// is no room, it is dropped (base/outbox.h).
    void tell(json::value message) { outbox_.post(std::move(message)); }
    /// The same, now.
    void tell_now(json::value message) { outbox_.send(std::move(message)); }
    /// Whether one of so many bytes would not be dropped now.
    bool can_tell(std::size_t bytes) { return outbox_.takes(bytes); }
    /// The same; one that would is counted, and need not be made.
    bool expects(std::size_t bytes) { return outbox_.expects(bytes); }
    /// Writes a reply now.
    void write(json::value message);
    /// Nothing more is read from the platform until release(): the reply of its last message is still to
    /// come.
    void hold() { stream_.hold(); }
    void release() { stream_.release(); }
    /// More than the message that is being handled has come.
    bool has_input() { return stream_.has_input(); }
    /// The acknowledgement has come.
    void acknowledged() { acknowledgement_.cancel(); }

    /// Milliseconds until the timers fire, -1: not armed.
    int heartbeat_remaining() { return heartbeat_.remaining(); }
    int acknowledgement_remaining() { return acknowledgement_.remaining(); }

  private:
    void send(json::value message);
    bool is_connected() { return is_open() && stage_ == stage::connected; }
    void readable(std::size_t available);
    void receive(std::string &body);
    void broken();
    void unanswered();

    task_queue &queue_;
    const platform::cache &cache_;
    handlers handlers_;
    stage stage_ = stage::bootstrap;
    key_ring keys_;
    frame_reader reader_;
    stream stream_;
    outbox outbox_;
    timer heartbeat_;
    deadline acknowledgement_;
    memory_return memory_;
};

}  // namespace arvok::cloud
