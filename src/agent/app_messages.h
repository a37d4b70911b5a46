#pragma once
/// Command messages of other apps on the device, and of the platform on their behalf: a flat table with a
/// "CmdType" in, a flat table out.

#include <optional>
#include <string>

#include "agent/modules.h"
#include "agent/options.h"
#include "base/bus_message.h"
#include "platform/cache.h"

namespace arvok {

class app_messages {
  public:
    /// All are borrowed.
    app_messages(modules &running, platform::cache &cache, const options &chosen)
        : modules_(running), cache_(cache), options_(chosen) {}

    /// Runs one command and builds its answer.
    void handle(blob_attr *message, bus_message &reply);
    /// The same with JSON in and out, for a command that came through the cloud. Nothing when it is no
    /// message of the bus; empty when the answer is none.
    std::optional<std::string> handle_json(const std::string &command);

  private:
    void get_status(bus_message &reply);

    modules &modules_;
    platform::cache &cache_;
    const options &options_;
};

}  // namespace arvok
