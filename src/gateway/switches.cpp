// Items and settings of the Wi-Fi schedule, the LED and the three switches.

#include "base/bus_message.h"
#include "gateway/settings.h"
#include "gateway/status_items.h"
#include "platform/session.h"

namespace arvok::gateway {
namespace {

using timer_list = platform::record_list<qzcap_wifi_timer, &qzcap_free_wifi_timers>;

constexpr int bus_timeout_ms = 2000;

void add_status(json::writer &item, const char *state) {
    item.open_object().text("status", view_of(state) == "on" ? "ON" : "OFF").close();
}

// The platform's word for the "status" that a request gives, "ON" or "OFF"; nothing after recording that it
// is neither.
std::optional<std::string_view> switch_word(request &r, std::string_view status) {
    if (status == "ON")
        return "on";
    if (status == "OFF")
        return "off";
    r.fail(invalid_parameter, "invalid status: %s", status.data());
    return std::nullopt;
}

// --- the three switches ---

struct switch_row {
    char *qzcap_wifi_switch::*state;
    const char *bus_key;
    bool skip_unchanged;
    const char *failure;  // the error's text, before the reason
    bool is_sync;
};

constexpr switch_row wifi_switch{&qzcap_wifi_switch::wifiswitch, "wifiswitch", true, "set_wifi_switch failed",
                                 false};
constexpr switch_row wps_switch{&qzcap_wifi_switch::wpsswitch, "wpsswitch", false, "set_wps_switch failed",
                                false};
constexpr switch_row sync_switch{&qzcap_wifi_switch::arvoksync, "arvoksync", true, "set_arvoksync failed",
                                 true};

// What the sync switch says is what the link goes by.
void note_state(request &r, const switch_row &row, std::string_view state) {
    if (row.is_sync)
        r.services.link.sync_on = state == "on";
}

bool get_switch(request &r, json::writer &item, const switch_row &row) {
    const platform::switches_record switches(platform::call(qzcap_get_wifi_switch));
    if (!switches)
        return r.fail_item(platform_failed, "qzcap_get_wifi_switch failed");
    const char *state = (*switches).*row.state;
    note_state(r, row, view_of(state));
    add_status(item, state);
    return true;
}

// Has the platform set one switch. Nothing when it did, else why not.
std::optional<std::string> refused(const char *key, std::string_view word) {
    bus_message message;
    message.text(key, word);
    char *reply = nullptr;
    const int status = platform::invoke(platform::object_id("qzcapd.wifi"), "set", message.get(),
                                        qzcap_data_cb, &reply, bus_timeout_ms);
    const platform::owned_text answer(reply);
    if (status != 0)
        return ubus_strerror(status);
    platform::reason why;
    if (qzcap_parse_result_and_failreason(answer.get(), why) != 0)
        return why.c_str();
    return std::nullopt;
}

void set_switch(request &r, const switch_row &row, json::view value) {
    const platform::switches_record switches(platform::call(qzcap_get_wifi_switch));
    if (!switches)
        return r.fail(platform_failed, "qzcap_get_wifi_switch failed");
    const std::optional<std::string_view> status = value["status"].text();
    if (!status)
        return r.fail(invalid_parameter, "invalid status");
    const char *state = (*switches).*row.state;
    if (row.skip_unchanged && state && same_ignoring_case(*status, state))
        return note_state(r, row, state);
    const std::optional<std::string_view> word = switch_word(r, *status);
    if (!word)
        return;
    if (const std::optional<std::string> why = refused(row.bus_key, *word))
        return r.fail(platform_failed, "%s: %s", row.failure, why->c_str());
    note_state(r, row, *word);
}

// --- the schedule ---

// An entry of the request, over the texts of the message.
qzcap_wifi_timer timer_record(json::view element) {
    return {.id = 0,
            .weekday = platform::lent(element["weekday"].text().value_or("")),
            .time = platform::lent(element["time"].text().value_or("")),
            .enable = platform::lent(element["enable"].text() == "1" ? "yes" : "no")};
}

// The text speaks of deleting also where an entry is set: gateways know it so.
void fail_timer(request &r, std::uint32_t id, const platform::reason &why) {
    r.fail(platform_failed, "qzcap_wifi_timer_delete %d failed: %s", static_cast<int>(id), why.c_str());
}

}  // namespace

bool get_wifitimer(request &r, json::writer &item) {
    const auto timers = platform::fetch_list<timer_list>(qzcap_wifi_timer_list);
    if (!timers)
        return r.fail_item(platform_failed, "qzcap_wifi_timer_list failed");
    item.open_array();
    for (const qzcap_wifi_timer *timer : *timers)
        item.open_object()
            .text("weekday", timer->weekday)
            .text("time", timer->time)
            .text("enable", view_of(timer->enable) == "yes" ? "1" : "0")
            .close();
    item.close();
    return true;
}

// The device's schedule becomes the request's list; the ids of existing entries are used again in their
// order.
void set_wifitimer(request &r, json::view value) {
    if (!value.is_array())
        return r.fail(invalid_parameter, "invalid wifitimer");
    const auto timers = platform::fetch_list<timer_list>(qzcap_wifi_timer_list);
    if (!timers)
        return r.fail(platform_failed, "qzcap_wifi_timer_list failed");
    platform::reason why;
    std::size_t i = 0;
    for (const json::view element : value) {
        const qzcap_wifi_timer record = timer_record(element);
        if (i == timers->size()) {
            if (platform::call(qzcap_wifi_timer_add, &record, why) < 0)
                return r.fail(platform_failed, "qzcap_wifi_timer_add failed: %s", why.c_str());
            continue;
        }
        const std::uint32_t id = (*timers)[i++].id;
        if (platform::call(qzcap_wifi_timer_set, id, &record, why) < 0)
            return fail_timer(r, id, why);
    }
    for (; i < timers->size(); i++)
        if (const std::uint32_t id = (*timers)[i].id; platform::call(qzcap_wifi_timer_delete, id, why) < 0)
            return fail_timer(r, id, why);
}

bool get_ledswitch(request &r, json::writer &item) {
    const platform::owned_text state(platform::call(qzcap_get_led_switch));
    if (!state)
        return r.fail_item(platform_failed, "qzcap_get_led_switch failed");
    add_status(item, state.get());
    return true;
}

void set_ledswitch(request &r, json::view value) {
    const std::optional<std::string_view> status = value["status"].text();
    if (!status)
        return r.fail(invalid_parameter, "invalid status");
    const std::optional<std::string_view> word = switch_word(r, *status);
    platform::reason why;
    if (word && platform::call(qzcap_set_led_switch, word->data(), why) < 0)
        r.fail(platform_failed, "qzcap_set_led_switch failed: %s", why.c_str());
}

bool get_wifiswitch(request &r, json::writer &item) {
    return get_switch(r, item, wifi_switch);
}
bool get_wpsswitch(request &r, json::writer &item) {
    return get_switch(r, item, wps_switch);
}
bool get_syncswitch(request &r, json::writer &item) {
    return get_switch(r, item, sync_switch);
}
void set_wifiswitch(request &r, json::view value) {
    set_switch(r, wifi_switch, value);
}
void set_wpsswitch(request &r, json::view value) {
    set_switch(r, wps_switch, value);
}
void set_syncswitch(request &r, json::view value) {
    set_switch(r, sync_switch, value);
}

}  // namespace arvok::gateway
