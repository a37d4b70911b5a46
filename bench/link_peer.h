#pragma once
/// The gateway's end of the link for the benchmarks and the soak: blocking and fast, one connection at a
/// time. Whatever the agent does unexpectedly ends the program with a message.

#include <optional>
#include <string>
#include <vector>

#include "common/crypto.h"
#include "common/json.h"
#include "home.h"

namespace arvok {

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
    std::vector<char> encode(const std::string &text) const;
    void write(const std::vector<char> &frames) { link_->write(frames.data(), frames.size()); }
    /// One round trip; keepalives that come in between are answered. Returns the answer's frame.
    std::vector<char> round_trip(const std::vector<char> &request);
    /// The agent's next message that is no keepalive; those are answered.
    std::vector<char> next_frame();
    json_ptr decode(std::vector<char> frame) const;
    /// Takes what has come: keepalives are answered, everything else is passed over.
    void serve();

  private:
    void register_agent();
    std::vector<char> read_frame();
    void send(const std::string &text) { write(encode(text)); }
    json_ptr receive() { return decode(read_frame()); }
    bool answer_keepalive(const std::vector<char> &frame);

    listener listener_;
    std::optional<connection> link_;
    bytes_ptr key_;
};

}  // namespace arvok
