#include "agent/agent.h"

#include "base/log.h"
#include "base/loop.h"

namespace arvok {
namespace {

constexpr int exit_no_bus = 255;
constexpr int exit_no_port = 255;
constexpr int retry_device_s = 5;

}  // namespace

agent::agent(options chosen, surroundings where)
    : options_(std::move(chosen)),
      where_(std::move(where)),
      signals_(std::in_place),
      app_messages_(modules_, cache_, options_) {}

int agent::run() {
    const beginning began = begin();
    if (began == beginning::no_bus)
        return exit_no_bus;
    if (began == beginning::begun)
        loop();
    if (!signals_)
        signals_.emplace();
    signals_->keep();  // the end is under way already
    end();
    return began == beginning::no_port ? exit_no_port : 0;
}

agent::beginning agent::begin() {
    session_.emplace();
    if (!session_->is_open())
        return beginning::no_bus;
    app_.emplace(bind<&agent::answer_app>(*this));
    if (!wait_for_device())
        return beginning::interrupted;
    build();
    return start() ? beginning::begun : beginning::no_port;
}

// False when the process is to end meanwhile.
bool agent::wait_for_device() {
    while (!cache_.refresh_device()) {
        log_printf("[ERROR] update_dev_info failed\n");
        if (signals_->wait(retry_device_s))
            return false;
    }
    return true;
}

bool agent::gateway_sync_is_on() {
    const platform::switches_record switches(qzcap_get_wifi_switch());
    return switches && view_of(switches->arvoksync) == "on";
}

void agent::build() {
    events_.emplace(modules_);
    const bool sync = gateway_sync_is_on();
    qzcap_delete_vsie_beacontx_by_name(gateway::beacon_owner, nullptr);

    tasks_.emplace();
    modules_.gateway.emplace(*tasks_, cache_, where_.clock, gateway::options{options_.gateway_address},
                             bind<&agent::pass_notification>(*this));
    modules_.gateway->set_sync(sync);
    modules_.cloud.emplace(
        *tasks_, cache_, where_.clock, cloud::options{options_.bss, options_.debug},
        cloud::agent_services{bind<&agent::run_link_message>(*this), bind<&agent::forget_link_actions>(*this),
                              bind<&agent::run_link_actions>(*this), bind<&agent::run_app_command>(*this)});
    modules_.local.emplace(cache_, options_.local_port);
    modules_.access.emplace(where_.clock, where_.rule_folder);
}

// False without the local port: nobody would be told what the agent is, so it does not run without.
bool agent::start() {
    modules_.gateway->start();
    modules_.cloud->start();
    if (!modules_.local->start())
        return false;
    modules_.access->start();
    return true;
}

void agent::loop() {
    timer running(bind<&agent::release_signals>(*this));
    running.arm(0);
    uloop_run_timeout(-1);
}

void agent::end() {
    modules_.cloud.reset();
    modules_.gateway.reset();
    modules_.local.reset();
    modules_.access.reset();
    tasks_.reset();
    uloop_done();
    events_.reset();
    app_.reset();
    session_.reset();
}

}  // namespace arvok
