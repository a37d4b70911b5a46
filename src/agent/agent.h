#pragma once
/// The agent: owns the platform session and the modules, builds them in the order of the start, connects what
/// one needs of another, and takes them down in the order of the end.

#include <optional>
#include <string>

#include "agent/app_messages.h"
#include "agent/modules.h"
#include "agent/options.h"
#include "agent/platform_events.h"
#include "base/clock.h"
#include "base/held_signals.h"
#include "base/loop.h"
#include "base/task_queue.h"
#include "platform/cache.h"
#include "platform/session.h"
#include "platform/subscription.h"

namespace arvok {

/// What the agent finds where it runs.
struct surroundings {
    wall_clock clock = system_clock;
    std::string rule_folder = "/qzcap/apps/arvokclt/";  ///< of the access rules' files, with its final slash
};

class agent {
  public:
    /// `signals` is borrowed and held: they end the loop as soon as it runs.
    agent(held_signals &signals, options chosen, surroundings where = {});
    agent(const agent &) = delete;
    agent &operator=(const agent &) = delete;

    /// From the platform session to the ordered end. Returns the exit status.
    int run();

    // --- the parts of run(), for who turns the loop himself ---

    /// Opens the session. The rest of the start is the loop's: until the device can describe itself it is
    /// asked again and again, then the modules are built and started. False without a bus.
    bool begin();
    /// Takes down whatever there is.
    void end();

  private:
    void bring_up();
    bool gateway_sync_is_on();
    void build();
    void start();

    // --- what the modules need of one another ---
    void pass_notification(std::string message) { modules_.cloud->send_notification(std::move(message)); }
    void answer_cloud(json::value reply) { modules_.cloud->link_message_answered(std::move(reply)); }
    std::optional<json::value> run_link_message(json::view message) {
        return modules_.gateway->handle_cloud_message(message);
    }
    void abandon_link_message() { modules_.gateway->abandon_cloud_message(); }
    void forget_link_actions() { modules_.gateway->forget_actions(); }
    void run_link_actions() { modules_.gateway->run_actions(); }
    std::optional<std::string> run_app_command(const std::string &command) {
        return app_messages_.handle_json(command);
    }
    void answer_app(blob_attr *message, bus_message &reply) { app_messages_.handle(message, reply); }

    held_signals &signals_;
    options options_;
    surroundings where_;
    int exit_status_ = 0;
    timer bring_up_;
    platform::cache cache_;
    modules modules_;
    app_messages app_messages_;
    std::optional<platform::session> session_;
    std::optional<platform::app_registration> app_;
    std::optional<platform::object_watch> objects_;
    std::optional<platform_events> events_;
    std::optional<task_queue> tasks_;
};

}  // namespace arvok
