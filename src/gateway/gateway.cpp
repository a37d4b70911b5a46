#include "gateway/gateway.h"

#include "gateway/bus_bridge.h"
#include "gateway/connection.h"
#include "gateway/control.h"
#include "gateway/dispatch.h"
#include "gateway/negotiation.h"
#include "gateway/reports.h"
#include "gateway/rssi_queries.h"

namespace arvok::gateway {

struct client::modules {
    modules(task_queue &tasks, platform::cache &cache, platform::object_watch &objects, wall_clock now,
            options where, const cloud_listeners &cloud)
        // Bound here, called only after connect(): what is bound is made after the link.
        : link_(tasks, cache, std::move(where), state_,
                {.opened = bind<&negotiation::request_key>(negotiation_),
                 .received = bind<&dispatcher::take>(dispatcher_),
                 .closed = bind<&modules::closed>(*this)}),
          negotiation_(link_, cache, state_),
          reports_(link_, cache, state_, queries_, now, cloud.notify),
          bus_bridge_(link_, state_, objects, cloud),
          dispatcher_({cache, state_, beacons_, bus_bridge_, queries_}, link_, negotiation_, reports_) {}

    void closed() {
        negotiation_.forget();
        bus_bridge_.abandon_link_calls();
    }

    link_state state_;
    connection link_;
    negotiation negotiation_;
    rssi_queries queries_;
    reports reports_;
    beacons beacons_;
    bus_bridge bus_bridge_;
    dispatcher dispatcher_;
};

client::client(task_queue &tasks, platform::cache &cache, platform::object_watch &objects, wall_clock now,
               options where, const cloud_listeners &cloud)
    : modules_(std::make_unique<modules>(tasks, cache, objects, now, std::move(where), cloud)) {}

// While the modules are there that the connection tells of its end; after its own end it would find none.
client::~client() {
    modules_->link_.disconnect();
}

void client::set_sync(bool on) {
    modules_->state_.sync_on = on;
}

bool client::sync_is_on() const {
    return modules_->state_.sync_on;
}

void client::sync_turned_on() {
    set_sync(true);
    modules_->link_.start_over();
}

void client::start() {
    modules_->link_.connect();
}

bool client::is_linked() const {
    return modules_->state_.linked;
}

std::optional<json::value> client::handle_cloud_message(json::view message) {
    return modules_->dispatcher_.take_from_cloud(message);
}

void client::abandon_cloud_message() {
    modules_->bus_bridge_.abandon_cloud_calls();
}

void client::forget_actions() {
    modules_->dispatcher_.forget_actions();
}

void client::run_actions() {
    modules_->dispatcher_.run_actions();
}

reports &client::reporting() {
    return modules_->reports_;
}

}  // namespace arvok::gateway
