#include "gateway/gateway.h"

#include "gateway/bus_bridge.h"
#include "gateway/connection.h"
#include "gateway/control.h"
#include "gateway/dispatch.h"
#include "gateway/negotiation.h"
#include "gateway/reports.h"

namespace arvok::gateway {

struct client::modules {
    modules(task_queue &tasks, platform::cache &cache, wall_clock now, options where,
            callback<void(const std::string &)> notify_cloud)
        : link(tasks, cache, std::move(where), state,
               {.opened = bind<&negotiation::begin>(keys), .received = bind<&dispatcher::take>(messages)}),
          keys(link, cache, state),
          told(link, cache, state, now),
          bridge(link, state, notify_cloud),
          messages({cache, state, elements, bridge}, link, keys, told) {}

    link_state state;
    connection link;
    negotiation keys;
    reports told;
    beacons elements;
    bus_bridge bridge;
    dispatcher messages;
};

client::client(task_queue &tasks, platform::cache &cache, wall_clock now, options where,
               callback<void(const std::string &)> notify_cloud)
    : modules_(std::make_unique<modules>(tasks, cache, now, std::move(where), notify_cloud)) {}

client::~client() {
    modules_->link.disconnect();
}

void client::set_sync(bool on) {
    modules_->state.sync_on = on;
}

void client::sync_turned_on() {
    set_sync(true);
    modules_->link.start_over();
}

void client::start() {
    modules_->link.connect();
}

bool client::is_linked() const {
    return modules_->state.linked;
}

json::value client::handle_cloud_message(json::view message) {
    return modules_->messages.take_from_cloud(message);
}

void client::forget_actions() {
    modules_->messages.forget_actions();
}

void client::run_actions() {
    modules_->messages.run_actions();
}

void client::lan_event(json::view event) {
    modules_->told.lan_event(event);
}

void client::lan_report() {
    modules_->told.lan_report();
}

void client::wan_report(json::view event) {
    modules_->told.wan_report(event);
}

void client::roaming_report(json::view event) {
    modules_->told.roaming_report(event);
}

void client::rssi_report(json::view event) {
    modules_->told.rssi_report(event);
}

void client::map_event(std::string_view mode) {
    modules_->told.map_event(mode);
}

void client::map_report() {
    modules_->told.map_report();
}

void client::vsie_event(json::view event) {
    modules_->told.vsie_event(event);
}

}  // namespace arvok::gateway
