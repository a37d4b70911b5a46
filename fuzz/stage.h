#pragma once
/// What the targets share: an input taken apart, the agent's life for the length of one input, and the script
/// that most inputs are.
///
/// A script is read line by line. A line that begins with one of these characters is an act of its own, every
/// other line is one message for the agent:
///
///     ~FATES         what becomes of the next calls of the platform (platform.h)
///     +SECONDS       time passes
///     !N             the N-th of the timers that are armed runs out, the soonest is 0, counted round
///     *N             the next line is played N more times, at most 20
///     %              the peer stops taking what the agent sends, or takes it again
///     -              the peer closes the connection
///     ?N METHOD JSON the platform notifies its N-th subscriber
///     $JSON          an installation under way ends with that outcome, without any when it is not JSON
///     @              everything behind this line goes to the agent as it stands

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent.h"
#include "base/handle.h"
#include "peers.h"

namespace arvok::fuzz {

using blob_ptr = handle<blob_attr, &::free>;

class Input {
  public:
    Input(const std::uint8_t *bytes, std::size_t size) : rest_(reinterpret_cast<const char *>(bytes), size) {}
    explicit Input(std::string_view text) : rest_(text) {}

    /// What stands before the next `separator`, which is dropped; all that is left when there is none.
    std::string_view until(char separator);
    bool empty() const { return rest_.empty(); }
    /// Everything that is left.
    std::string_view rest() { return std::exchange(rest_, {}); }

  private:
    std::string_view rest_;
};

/// A message of the bus: from JSON (null when it is none), or of exactly these bytes.
blob_ptr blob_of_json(std::string_view json);
blob_ptr blob_of_bytes(std::string_view bytes);

/// The agent from its beginning to its end.
class Stage {
  public:
    /// These are on the other side of its connections; without a gateway the link is switched off, and
    /// without a cloud its name is being looked up for ever. The script speaks for the first.
    explicit Stage(std::vector<Peer *> peers, arvok::options chosen = {});
    virtual ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    /// Plays a script; in the end the agent must tell its status.
    void play(Input input);
    /// One message of a peer.
    void say(Peer &peer, std::string_view line) { send(peer, peer.message(line)); }
    /// One command of another app.
    void command(const blob_ptr &message);

  protected:
    /// One line of the script that is no act.
    virtual void message(std::string_view line) { say(*peers_.front(), line); }
    /// What stands behind '@': goes out in pieces of as many bytes as the first says, in one piece for 0.
    virtual void raw(std::string_view bytes);
    /// Called after every line: the agent must not be stuck.
    virtual void check();

    /// Sends bytes to the agent, if there is a connection, and lets it work.
    void send(const Peer &peer, std::string_view bytes);
    /// Lets the agent work until it has nothing more to do at this moment.
    void turn();
    /// One notification, "N METHOD JSON".
    void notify_from(std::string_view line);

    /// The timer at which the schedules are looked at again: the last that the agent's beginning arms.
    const uloop_timeout *schedule_timer() const { return schedule_timer_; }

  private:
    bool act(std::string_view line, Input &input);
    bool take_answers();

    held_signals signals_;
    const int descriptor_;  ///< the next one that is free
    const std::vector<Peer *> peers_;
    agent agent_;
    const uloop_timeout *schedule_timer_;
    bool taking_ = true;
    bool notified_ = false;  ///< the platform has notified something
};

/// Takes the agent over the key agreement; it is told to report all events.
void register_device(Stage &stage, GatewayPeer &gateway);
/// Before the stage begins: stored servers with which the connection gets to the cloud's stage `wanted`, 1 to
/// 5, with an identity for those that need one and when the device is `known`.
void store_servers(int wanted, bool known);
/// Takes the agent from there to that stage.
void climb_to(int wanted, Stage &stage, CloudPeer &cloud);

}  // namespace arvok::fuzz
