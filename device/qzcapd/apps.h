/// The app manager: installs apps, keeps their files in step with the state document, and carries messages to
/// them.
#ifndef ARVOK_QZCAPD_APPS_H
#define ARVOK_QZCAPD_APPS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app_files.h"
#include "app_messages.h"
#include "calls_table.h"
#include "installation.h"
#include "json.h"

namespace arvok::qzcapd {

class Apps {
  public:
    /// Tells that an installation has ended: {"id", "outcome": {"result", "failreason", "name", "version"}},
    /// without an outcome if that has been ordered.
    using Announce = std::function<void(json_ptr message)>;

    /// `state` is the document, whichever it is at the time; the apps live below `root`. Writes the missing
    /// control files.
    Apps(ubus_context *ctx, const json_ptr &state, const std::string &root, Announce announce);
    /// Ends all installations without a word, and all messages.
    ~Apps();
    Apps(const Apps &) = delete;
    Apps &operator=(const Apps &) = delete;

    /// Starts an installation, which fails when that is on order; answers with its id.
    Reply install(const std::string &url, Failures &orders);
    Reply uninstall(const std::string &name);
    Reply set_state(const std::string &name, const char *to);
    Reply restore(const std::string &name);
    Reply list() const;
    /// Carries a message (JSON text) to a running app.
    Reply post(const std::string &name, const std::string &message);

    /// Makes the files fit a document that has changed by other means than these calls: writes what control
    /// files it lacks, removes apps that are not in it.
    void follow_document();

  private:
    cJSON *find(const std::string &name) const;
    void conclude(Installation &installation);
    void enter(const Installation &installation);

    const json_ptr &state_;
    AppFiles files_;
    Announce announce_;
    AppMessages messages_;
    std::vector<std::unique_ptr<Installation>> installations_;
    int last_id_ = 0;
};

}  // namespace arvok::qzcapd

#endif
