#pragma once
/// The gateway's end of the link for the benchmarks and the soak: blocking and fast, one connection at a
/// time. Whatever the agent does unexpectedly ends the program with a message.

#include <optional>
#include <string>

#include "base/crypto.h"
#include "base/json.h"
#include "home.h"

namespace arvok::bench {

extern const char gateway_address[];

class gateway {
  public:
    /// Listens; the agent may be started from now on.
    gateway();

    /// Takes the agent's next connection and answers it until it registers, which is not acknowledged. `take`
    /// does not wait for a connection: false when there is none yet.
    void await_registration();
    bool take_registration();
    void hang_up() { link_.reset(); }

    /// Frames of messages to the agent.
    std::string encode(const std::string &text);
    void write(const std::string &frames) { link_->write(frames); }
    /// One round trip; keepalives that come in between are answered. Returns the answer's frame.
    std::string round_trip(const std::string &request);
    /// The agent's next message that is no keepalive; those are answered.
    std::string next_frame();
    json::document decode(const std::string &frame);
    /// Takes what has come: keepalives are answered, everything else is passed over.
    void serve();

  private:
    void register_agent();
    std::string read_frame();
    void send(const std::string &text) { write(encode(text)); }
    json::document receive() { return decode(read_frame()); }
    bool answer_keepalive(const std::string &frame);

    listener listener_;
    std::optional<connection> link_;
    std::optional<aes> cipher_;
};

}  // namespace arvok::bench
