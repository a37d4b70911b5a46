#pragma once
/// What the targets share: an input taken apart, the agent's life for the length of one input, and the script
/// that most inputs are.
///
/// A script is read line by line. A line that begins with one of these characters is an act of its own, every
/// other line is one message for the agent:
///
///     ~FATES         what becomes of the next calls of the platform (platform.h)
///     +SECONDS       time passes
///     !N             the N-th of the timers that are armed runs out, counted round
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

#include "common/handle.h"

extern "C" {
#include <libubox/blob.h>
#include <libubox/uloop.h>
}

namespace arvok::fuzz {

using blob_ptr = handle<blob_attr, &::free>;

/// What may wait to be sent before further requests wait, too: little, so that an input gets there soon.
constexpr int unsent_max = 4096;

/// Ends the process when the agent has done what it must not do.
void require(bool holds, const char *what);

class Input {
  public:
    Input(const std::uint8_t *bytes, std::size_t size) : rest_(reinterpret_cast<const char *>(bytes), size) {}

    /// What stands before the next `separator`, which is dropped; all that is left when there is none.
    std::string_view until(char separator);
    bool empty() const { return rest_.empty(); }
    /// Everything that is left.
    std::string_view rest() { return until_end(); }

  private:
    std::string_view until_end();
    std::string_view rest_;
};

/// One byte of a text, 0 beyond its end.
inline unsigned char byte_at(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

/// A decimal number at the beginning of a text, 0 for none, at most `max`.
long number_at(std::string_view text, long max);

/// A message of the bus: from JSON (null when it is none), or of exactly these bytes.
blob_ptr blob_of_json(std::string_view json);
blob_ptr blob_of_bytes(std::string_view bytes);

/// The agent from the start of its modules to its end, as main has it, but without a connection. What the
/// options have left in g_ctx counts.
class Stage {
  public:
    /// The peer on the connections with that port is this one; the others are silent.
    explicit Stage(std::string_view port = {});
    virtual ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    void play(Input input);

  protected:
    /// One line of the script that is no act.
    virtual void message(std::string_view line) = 0;
    /// What stands behind '@'.
    virtual void raw(std::string_view bytes) = 0;

    /// Sends bytes to the agent through our newest connection, if there is one, and lets it work.
    void send(std::string_view bytes);
    /// The same in pieces of as many bytes as the first says, in one piece for 0.
    void send_in_pieces(std::string_view bytes);
    /// Lets the agent work until it has nothing more to do at this moment.
    void turn();

    /// One notification, "N METHOD JSON".
    static void notify_from(std::string_view line);

    /// Called after every line: the agent must not be stuck.
    virtual void check() {}

    /// Bytes that the agent has sent; what is not complete stays at the beginning of the next ones. Returns
    /// how many have been dealt with.
    virtual std::size_t received(std::string_view) { return 0; }

    /// Answers arrive in the state in which they were sent, so that their keys are known. No longer after raw
    /// bytes, which may hold several messages, and after answers that were left waiting.
    bool at_once_ = true;
    bool notified_ = false;  ///< the platform has notified something

  private:
    bool act(std::string_view line, Input &input);
    bool take_answers();
    void fire(long which);

    const int descriptor_;  ///< the next one that is free
    const std::string port_;
    bool taking_ = true;
    int taken_from_ = -1;
    std::string inbox_;
};

}  // namespace arvok::fuzz
