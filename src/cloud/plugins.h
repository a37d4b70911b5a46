#pragma once
/// The platform's requests about the device's apps, and what it is told of them.

#include <deque>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/json.h"
#include "base/task_queue.h"
#include "cloud/connection.h"
#include "cloud/reply.h"
#include "platform/cache.h"

namespace arvok::cloud {

/// What can be done with an installed app. The number is part of a failure's reason.
enum class app_action : unsigned { uninstall, stop, run, restore };

/// Each request is answered at once.
class plugins {
  public:
    /// All but the clock is borrowed. No task may run after its end.
    plugins(task_queue &queue, connection &link, const platform::cache &cache, wall_clock clock)
        : queue_(queue), link_(link), cache_(cache), clock_(clock) {}
    /// Installations under way go on; nobody is told of their ends any more, and no app is run.
    ~plugins();
    plugins(const plugins &) = delete;
    plugins &operator=(const plugins &) = delete;

    /// Starts an installation. The platform hears of its end by an "InstallNotification", unless the device's
    /// platform library never tells how it ended. No more than 16 are under way.
    void install(json::view request);
    /// Does that with the installed app that the request names.
    void act(json::view request, app_action action);
    /// Tells which apps are installed, and whether they run.
    void list(json::view request);

    /// Tells the platform something on the agent's behalf; what became too long is empty, and is dropped.
    void notify(std::string message);
    /// The platform is connected again: it is told what has been installed meanwhile, and once more what it
    /// was told on an earlier connection and has not acknowledged.
    void connected();
    /// Tells what there was no room for, on the loop's next turn: what counts as told has been written.
    void tell_kept();
    /// The platform has acknowledged a result: the one that the message names, else the oldest one told.
    void acknowledged(json::view message);

  private:
    struct installation;
    /// How an installation ended.
    struct ending {
        std::string id;  ///< of the message
        json::value message;
        int told = 0;            ///< on so many connections
        bool told_here = false;  ///< on this one
    };

    static void installed(ubus_request *request, blob_attr *message);
    void report(const installation &ended, json::view told);
    void write_kept();
    json::object notification(const char *method, const std::string &id) const;

    task_queue &queue_;
    connection &link_;
    const platform::cache &cache_;
    wall_clock clock_;
    std::vector<installation *> under_way_;
    std::deque<ending> kept_;  ///< those that the platform may not know, the oldest first
    bool queued_ = false;      ///< the task that tells them
};

}  // namespace arvok::cloud
