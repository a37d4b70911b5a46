#include "gateway/dispatch.h"

#include "base/log.h"
#include "base/table.h"
#include "gateway/bus_bridge.h"
#include "gateway/control.h"
#include "gateway/handlers.h"

namespace arvok::gateway {
namespace {

bool handle_ubus_call(request &r) {
    return r.services.bridge.handle_call(r);
}

bool handle_ubus_subscribe(request &r) {
    return r.services.bridge.handle_subscribe(r);
}

struct request_row {
    const char *name;
    bool (*handle)(request &r);
};

// Whoever sends them.
constexpr request_row requests[] = {
    {"cfg", handle_cfg},
    {"get_status", handle_get_status},
    {"control", handle_control},
    {"deassociation", handle_deassociation},
    {"getrssiinfo", handle_getrssiinfo},
    {"qlink", handle_qlink},
    {"startaprssiquery", handle_startaprssiquery},
    {"startstabsstransitionrequest", handle_startstabsstransitionrequest},
    {"ubus_call", handle_ubus_call},
    {"ubus_subscribe", handle_ubus_subscribe},
};

}  // namespace

// Only the gateway may send them.
struct dispatcher::answer_row {
    const char *name;
    bool (dispatcher::*handle)(json::view answer);
};

constexpr dispatcher::answer_row dispatcher::answers[] = {
    {"keyngack", &dispatcher::handle_keyngack},
    {"dh", &dispatcher::handle_dh},
    {"ack", &dispatcher::handle_ack},
};

// Whether the message was consumed. One of the gateway's ends the wait for its acknowledgement; the cloud
// cannot answer in its place: nothing would end the wait for a gateway that has gone silent.
bool dispatcher::run(request &r) {
    services_.cache.expire();
    const std::optional<std::string_view> type = r.root["type"].text();
    bool consumed = false;
    if (!type)
        log_printf("[ERROR] (arvok) type not found\n");
    else if (const request_row *request_type = find_row(requests, *type))
        consumed = request_type->handle(r);
    else if (const answer_row *answer = find_row(answers, *type))
        consumed = !r.from_cloud && (this->*answer->handle)(r.root);
    else
        log_printf("[ERROR] (arvok) unknown type: %s\n", type->data());
    actions_ = r.actions;
    if (consumed && !r.from_cloud)
        link_.acknowledged();
    return consumed;
}

void dispatcher::take(json::view message) {
    const platform::message_scope scope(&link_, bind<&connection::has_input>(link_));
    request r(message, false, services_);
    if (!run(r))
        return;
    if (r.reply)
        link_.send(std::move(r.reply));
    run_actions();
    switch_to_bridge(r);
}

std::optional<json::value> dispatcher::take_from_cloud(json::view message) {
    request r(message, true, services_);
    run(r);
    if (r.is_answered_later)
        return std::nullopt;
    return std::move(r.reply);
}

// In this order, whatever the order of the commands was.
void dispatcher::run_actions() const {
    platform::gate::message_answered();
    if ((actions_ & action_reset) && platform::call(qzcap_reset) < 0)
        log_printf("[ERROR] qzcap_reset failed\n");
    if ((actions_ & action_reboot) && platform::call(qzcap_reboot) < 0)
        log_printf("[ERROR] qzcap_reboot failed\n");
}

void dispatcher::switch_to_bridge(const request &r) const {
    if (!(actions_ & action_bridge) || !services_.cache.is_router() || !r.allow_bridge)
        return;
    platform::reason why;
    if (platform::call(qzcap_set_workmode, "bridge", why) < 0)
        log_printf("[ERROR] qzcap_set_workmode failed: %s\n", why.c_str());
}

// --- answers of the gateway ---

bool dispatcher::handle_keyngack(json::view answer) {
    return negotiation_.handle_keyngack(answer);
}

bool dispatcher::handle_dh(json::view answer) {
    const bool registered = negotiation_.handle_dh(answer);
    reports_pending_ |= registered;
    return registered;
}

// A keepalive's acknowledgement is not "consumed": it must not end the wait for another message's.
bool dispatcher::handle_ack(json::view answer) {
    if (link_.is_keepalive_ack(answer)) {
        link_.keepalive_acknowledged();
        return false;
    }
    if (reports_pending_)
        send_first_reports();
    return true;
}

// They follow the first acknowledgement that is not a keepalive's.
void dispatcher::send_first_reports() {
    reports_pending_ = false;
    platform::cache &cache = services_.cache;
    cache.expire_wan();
    if (cache.refresh_wan())
        reports_.wan_up(*cache.wan());
    else
        log_printf("[ERROR] update_wan_info failed\n");
    platform::host_snapshot hosts;
    reports_.lan_report(hosts);
}

}  // namespace arvok::gateway
