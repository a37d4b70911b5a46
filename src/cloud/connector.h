#pragma once
/// When and to which server the device connects.
///
/// A failing server is tried five times more, after random delays that double; then the next address of a
/// business server has its turn. When all have failed, the device rests for 150 minutes and begins another
/// round; after the third round it goes back to the bootstrap server and enrols anew.

#include <string>

#include "base/loop.h"
#include "base/task_queue.h"
#include "cloud/connection.h"
#include "cloud/resolution.h"
#include "cloud/settings.h"

namespace arvok::cloud {

/// What is as good as at once for reconnect().
constexpr int reconnect_now_ms = 10;

class connector {
  public:
    /// `opened` is told of each new connection, so that the exchange on it can begin. `debug` makes delays
    /// short. Begins with the business servers where there are some.
    connector(task_queue &queue, connection &link, settings &settings, bool debug, callback<void()> opened);

    /// Looks for the next address and connects; a look-up under way is left to end. A connection that is up
    /// must have been closed.
    void run();
    /// Disconnects a connection that is open, and plans none until run() or reconnect().
    void rest();
    /// Disconnects, and connects again in `ms` milliseconds.
    void reconnect(int ms);
    /// After a failure: the same server again after a growing delay, in the end another server.
    void retry();
    /// Disconnects, and connects again after 150 minutes. The kind of server is for the log.
    void wait_long(target kind);
    /// Retries as the failure asks for.
    void after(failure why);
    /// The platform has taken the device: earlier failures do not count any more.
    void succeeded() { retries_ = rounds_ = 0; }

    /// What the next connection goes to.
    void choose(target next) { next_ = next; }
    /// Forgets identity and addresses, and leaves for the bootstrap server a moment later, or with the next
    /// connection when this one ends before.
    void change_bootstrap();
    /// Remembers what people are told about the last failure.
    void note(std::string trouble) { trouble_ = std::move(trouble); }

    /// That remark, in words for people.
    const std::string &trouble() const { return trouble_; }
    /// The server of the connection at hand, or else of the next attempt, by its name; empty when none is
    /// known.
    const server &used() const;
    /// A look-up is under way.
    bool is_resolving() const { return resolving_; }
    /// The next connection has its time.
    bool is_waiting() const { return reconnection_.is_armed(); }
    /// Milliseconds until the next connection, -1: none is awaited.
    int remaining() { return reconnection_.remaining(); }

  private:
    void resolved(resolution outcome);
    void connect();
    void change();
    int delay_s(int attempt) const;
    void retry_current();
    void retry_next_server();
    void return_to_bootstrap();

    task_queue &queue_;
    connection &link_;
    settings &settings_;
    const bool debug_;
    const callback<void()> opened_;
    timer reconnection_;
    timer change_;  ///< leaves for another bootstrap server
    target next_;
    /// As the last look-up left it. The one under way has a copy, which replaces this: nothing changes here
    /// meanwhile, for no look-up is under way while a connection is open.
    resolution known_;
    bool resolving_ = false;
    std::size_t server_index_ = 0;  ///< business server in use
    server connected_;              ///< the server of the last attempt, by its name
    int retries_ = 0;               ///< failures in a row at the current server
    int rounds_ = 0;                ///< through all business servers
    std::string trouble_;
};

}  // namespace arvok::cloud
