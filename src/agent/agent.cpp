#include "agent/agent.h"

#include "base/log.h"

namespace arvok {
namespace {

constexpr int exit_no_bus = 255;
constexpr int exit_no_port = 255;
constexpr int retry_device_ms = 5000;

}  // namespace

agent::agent(held_signals &signals, options chosen, surroundings where)
    : signals_(signals),
      options_(std::move(chosen)),
      where_(std::move(where)),
      bring_up_(bind<&agent::bring_up>(*this)),
      app_messages_(modules_, cache_, options_) {}

int agent::run() {
    if (!begin())
        return exit_no_bus;
    uloop_run_timeout(-1);
    end();
    return exit_status_;
}

bool agent::begin() {
    session_.emplace();
    if (!session_->is_open())
        return false;
    signals_.watch();
    bring_up_.arm(0);
    return true;
}

// Each step may take its time: a signal or the end of the bus meanwhile leaves out what is left.
void agent::bring_up() {
    if (!app_)
        app_.emplace(bind<&agent::answer_app>(*this));
    if (!cache_.refresh_device()) {
        log_printf("[ERROR] update_dev_info failed\n");
        return bring_up_.arm(retry_device_ms);
    }
    if (!is_ending())
        build();
    if (!is_ending())
        start();
}

bool agent::gateway_sync_is_on() {
    const platform::switches_record switches(platform::call(qzcap_get_wifi_switch));
    return switches && view_of(switches->arvoksync) == "on";
}

void agent::build() {
    objects_.emplace();
    events_.emplace(modules_, *objects_);
    const bool sync = gateway_sync_is_on();
    if (is_ending())
        return;
    platform::call(qzcap_delete_vsie_beacontx_by_name, gateway::beacon_owner, nullptr);

    tasks_.emplace();
    modules_.gateway.emplace(
        *tasks_, cache_, *objects_, where_.clock, gateway::options{options_.gateway_address},
        gateway::cloud_listeners{bind<&agent::pass_notification>(*this), bind<&agent::answer_cloud>(*this)});
    modules_.gateway->set_sync(sync);
    modules_.cloud.emplace(
        *tasks_, cache_, where_.clock, cloud::options{options_.bss, options_.debug},
        cloud::agent_services{bind<&agent::run_link_message>(*this),
                              bind<&agent::abandon_link_message>(*this),
                              bind<&agent::forget_link_actions>(*this), bind<&agent::run_link_actions>(*this),
                              bind<&agent::run_app_command>(*this)});
    modules_.local.emplace(cache_, options_.local_port);
    modules_.access.emplace(where_.clock, where_.rule_folder);
}

// Without its local port the agent does not run: nobody would be told what it is.
void agent::start() {
    modules_.gateway->start();
    modules_.cloud->start();
    if (!modules_.local->start()) {
        exit_status_ = exit_no_port;
        return uloop_end();
    }
    modules_.access->start();
}

void agent::end() {
    modules_.cloud.reset();
    modules_.gateway.reset();
    modules_.local.reset();
    modules_.access.reset();
    tasks_.reset();
    signals_.ignore();
    uloop_done();
    events_.reset();
    objects_.reset();
    app_.reset();
    session_.reset();
}

}  // namespace arvok
