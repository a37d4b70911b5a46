#pragma once
/// "SetPluginParams": a message of the platform to an app, wrapped in base64, and its answer. To the agent
/// itself it is a message of the gateway link or a command of the app manager.

#include <optional>
#include <string>

#include "base/callback.h"
#include "base/json.h"
#include "cloud/connection.h"
#include "cloud/reply.h"
#include "platform/cache.h"

namespace arvok::cloud {

/// What of the agent is not the cloud's.
struct agent_services {
    /// Carries out a message of the gateway link, which may be nothing. Its reply; none when it was not
    /// handled. Nothing when the reply is to follow (app_messages::link_message_answered).
    callback<std::optional<json::value>(json::view message)> link_message;
    /// Nobody waits for that reply any more.
    callback<void()> abandon_link_message;
    /// Device actions of link messages that were to wait for their reply: forgets those of earlier messages,
    /// and runs those of the last one.
    callback<void()> forget_link_actions, run_link_actions;
    /// Carries out a command of the app manager, a JSON text. Its answer, one too; nothing when the command
    /// is no message of the bus.
    callback<std::optional<std::string>(const std::string &command)> app_command;
};

class app_messages {
  public:
    app_messages(connection &link, const platform::cache &cache, const agent_services &agent)
        : link_(link), cache_(cache), agent_(agent) {}

    /// Handles one such request. Its answer may be still to come: the connection is on hold until then.
    void deliver(json::view request);
    /// The reply of the link message that was to follow; none when it was not handled.
    void link_message_answered(json::value reply);
    /// The connection is closed: what is to follow is for nobody.
    void abandon();

  private:
    /// An answer, in the words of whoever gave it.
    using answer = std::optional<std::string>;

    std::optional<answer> hand_over(json::view request, outcome &result) const;
    std::optional<answer> run_link_message(const std::string &text) const;
    answer run_app_command(const std::string &text, outcome &result) const;

    connection &link_;
    const platform::cache &cache_;
    const agent_services agent_;
    json::document waiting_;  ///< the request whose answer is still to come
};

}  // namespace arvok::cloud
