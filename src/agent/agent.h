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
#include "base/task_queue.h"
#include "platform/cache.h"
#include "platform/session.h"

namespace arvok {

/// What the agent finds where it runs.
struct surroundings {
    wall_clock clock = system_clock;
    std::string rule_folder = "/qzcap/apps/arvokclt/";  ///< of the access rules' files, with its final slash
};

class agent {
  public:
    explicit agent(options chosen, surroundings where = {});
    agent(const agent &) = delete;
    agent &operator=(const agent &) = delete;

    /// From the platform session to the ordered end. Returns the exit status.
    int run();

    // --- the parts of run(), for who turns the loop himself ---

    enum class beginning { begun, no_bus, interrupted, no_port };
    /// Opens the session, waits for the device, and builds and starts the modules.
    beginning begin();
    /// Takes down whatever there is.
    void end();

  private:
    bool wait_for_device();
    bool gateway_sync_is_on();
    void build();
    bool start();
    void loop();

    // --- what the modules need of one another ---
    void pass_notification(const std::string &message) { modules_.cloud->send_notification(message); }
    json::value run_link_message(json::view message) {
        return modules_.gateway->handle_cloud_message(message);
    }
    void forget_link_actions() { modules_.gateway->forget_actions(); }
    void run_link_actions() { modules_.gateway->run_actions(); }
    std::optional<std::string> run_app_command(const std::string &command) {
        return app_messages_.handle_json(command);
    }
    void answer_app(blob_attr *message, bus_message &reply) { app_messages_.handle(message, reply); }

    void release_signals() { signals_.reset(); }

    options options_;
    surroundings where_;
    std::optional<held_signals> signals_;
    platform::cache cache_;
    modules modules_;
    app_messages app_messages_;
    std::optional<platform::session> session_;
    std::optional<platform::app_registration> app_;
    std::optional<platform_events> events_;
    std::optional<task_queue> tasks_;
};

}  // namespace arvok
