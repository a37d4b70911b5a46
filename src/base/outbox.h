#pragma once
/// What a connection tells of the agent's own accord: reports, events and notifications.
///
/// Nobody has asked for it and somebody else decides how much of it there is, so it is bounded: what would
/// make more than 256 KiB wait to be sent, or comes while the other side is not ready for it, is dropped. One
/// line of the log tells that dropping begins, one how many messages it has cost when one is taken again.
/// That needs half of the room: a peer that reads slowly does not make lines by the message. Where nothing
/// waits, a longer message is taken, too: it would never be sent otherwise. What goes through the same stream
/// without the outbox, answers above all, counts as waiting but is never dropped.

#include <cstddef>
#include <vector>

#include "base/json.h"
#include "base/stream.h"
#include "base/task_queue.h"

namespace arvok {

class outbox {
  public:
    struct handlers {
        /// The other side is there and expects such messages.
        callback<bool()> is_ready;
        callback<void(json::value message)> write;
    };
    struct lines {
        const char *begin;  ///< whether it is ready (0 or 1), bytes that wait
        const char *end;    ///< messages dropped
    };

    /// Queue and stream are borrowed. No task may run after its end.
    outbox(task_queue &tasks, stream &to, const handlers &owner, const lines &log);

    /// Whether a message of so many bytes would be taken now.
    bool takes(std::size_t bytes);
    /// The same of one that has at least so many. When it would not, it counts as dropped, and need not be
    /// made.
    bool expects(std::size_t bytes);
    /// Writes a message now, or drops it.
    void send(json::value message);
    /// The same on the loop's next turn, in the order of the calls. Until then it waits here: whatever the
    /// number of messages, one task is queued for them.
    void post(json::value message);
    /// The connection has ended: drops what waits.
    void clear();

  private:
    bool admit(const json::value &message);
    void drop();
    void send_waiting();
    std::size_t waiting();

    task_queue &tasks_;
    stream &stream_;
    const handlers owner_;
    const lines log_;
    std::vector<json::value> posted_;
    std::size_t posted_bytes_ = 0;
    bool queued_ = false;        ///< the task that sends them
    unsigned long dropped_ = 0;  ///< since a message was taken
};

}  // namespace arvok
