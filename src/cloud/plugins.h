#pragma once
/// The platform's requests about the device's apps, and what it is told of them.

#include <deque>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/json.h"
#include "cloud/connection.h"
#include "cloud/reply.h"
#include "platform/cache.h"

namespace arvok::cloud {

/// What can be done with an installed app. The number is part of a failure's reason.
enum class app_action : unsigned { uninstall, stop, run, restore };

/// Each request is answered at once.
class plugins {
  public:
    plugins(connection &link, const platform::cache &cache, wall_clock clock)
        : link_(link), cache_(cache), clock_(clock) {}
    /// Installations under way go on; nobody is told of their ends any more, and no app is run.
    ~plugins();
    plugins(const plugins &) = delete;
    plugins &operator=(const plugins &) = delete;

    /// Starts an installation. The platform hears of its end by an "InstallNotification", unless the device's
    /// platform library never tells how it ended.
    void install(json::view request);
    /// Does that with the installed app that the request names.
    void act(json::view request, app_action action);
    /// Tells which apps are installed, and whether they run.
    void list(json::view request);

    /// Tells the platform something on the agent's behalf.
    void notify(const std::string &message);
    /// Tells the platform, which is connected again, what has been installed meanwhile.
    void tell_kept();

  private:
    struct installation;

    static void installed(ubus_request *request, blob_attr *message);
    void report(const installation &ended, json::view told);
    json::object notification(const char *method) const;

    connection &link_;
    const platform::cache &cache_;
    wall_clock clock_;
    std::vector<installation *> under_way_;
    std::deque<json::value> kept_;  ///< results that could not be told, the oldest first
};

}  // namespace arvok::cloud
