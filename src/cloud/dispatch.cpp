#include "cloud/dispatch.h"

#include "base/log.h"
#include "base/table.h"
#include "cloud/app_messages.h"
#include "cloud/connection.h"
#include "cloud/enrolment.h"
#include "cloud/plugins.h"
#include "cloud/reply.h"

namespace arvok::cloud {
namespace {

struct acknowledgement_row {
    const char *name;
    bool (enrolment::*handler)(json::view message);  // null: it is no part of the enrolment
    stage awaited_in;                                // what it acknowledges is sent then
};

constexpr acknowledgement_row acknowledgements[] = {
    {"Boot", &enrolment::boot_acknowledged, stage::bootstrap},
    {"GetChallengeCode", &enrolment::challenge_acknowledged, stage::challenge},
    {"Activate", &enrolment::activate_acknowledged, stage::activating},
    {"Connect", &enrolment::connect_acknowledged, stage::connecting},
    {"Heartbeat", &enrolment::heartbeat_acknowledged, stage::connected},
    {"InstallNotification", nullptr, stage::connected},
};

struct request_row {
    const char *name;
    void (*handler)(const recipients &to, json::view request);
};

template <app_action Action>
void act(const recipients &to, json::view request) {
    to.apps.act(request, Action);
}

constexpr request_row requests[] = {
    {"RequestConnectBSS",
     [](const recipients &to, json::view request) { to.enrolling.request_connect_bootstrap(request); }},
    {"Install", [](const recipients &to, json::view request) { to.apps.install(request); }},
    {"Uninstall", act<app_action::uninstall>},
    {"Stop", act<app_action::stop>},
    {"Run", act<app_action::run>},
    {"RestorePlugin", act<app_action::restore>},
    {"ListPlugin", [](const recipients &to, json::view request) { to.apps.list(request); }},
    {"SetPluginParams", [](const recipients &to, json::view request) { to.messages.deliver(request); }},
};

void log_invalid() {
    log_printf("[ERROR] (cloud) invalid server msg\n");
}

// An acknowledgement that is not handled leaves the deadline running. One that nobody waits for must not take
// the device any further: in the challenge's stage anybody can speak, and only what answers an encrypted
// message shows that it could be read.
void acknowledge(const recipients &to, std::string_view name, json::view message) {
    const acknowledgement_row *row = find_row(acknowledgements, name);
    if (!row) {
        log_printf("[ERROR] (cloud) unknown Ack type: %s\n", name.data());
        return log_invalid();
    }
    if (to.link.at() != row->awaited_in || (row->handler && !(to.enrolling.*row->handler)(message)))
        return log_invalid();
    if (!row->handler)
        to.apps.acknowledged(message);
    to.link.acknowledged();
}

void run_request(const recipients &to, json::view request) {
    const auto method = request["RPCMethod"].text();
    if (!method || !request["ID"].is_text()) {
        log_printf("[ERROR] (cloud) RPCMethod or ID not found\n");
        return log_invalid();
    }
    const request_row *row = find_row(requests, *method);
    if (row && to.link.at() == stage::connected)
        return row->handler(to, request);
    outcome result;
    result.fail(row ? "NOT_CONNECTED" : "UNRECOGNIZE_REQUEST");
    to.link.write(reply_to(request, result));
}

}  // namespace

void dispatch(const recipients &to, json::view message) {
    if (const auto acknowledged = message["Ack"].text())
        acknowledge(to, *acknowledged, message);
    else
        run_request(to, message);
}

}  // namespace arvok::cloud
