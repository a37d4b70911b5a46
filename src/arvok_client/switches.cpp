// Items and settings of the Wi-Fi schedule, the LED and the three switches.

#include <string>

#include "arvok_client/handlers.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr int bus_timeout_ms = 2000;

using timers_ptr = std::unique_ptr<qzcap_wifi_timer *, release_list_with<&qzcap_free_wifi_timers>>;

json_ptr status_item(const char *state) {
    return json_object().text("status", _strcmp(state, "on") == 0 ? "ON" : "OFF").take();
}

// "ON" and "OFF" of the protocol as the platform's words; null for everything else.
const char *switch_word(const char *status) {
    if (_strcmp(status, "ON") == 0)
        return "on";
    return _strcmp(status, "OFF") == 0 ? "off" : nullptr;
}

// --- the three switches ---

struct switch_row {
    char *qzcap_wifi_switch::*state;
    const char *bus_key;
    bool skip_unchanged;
    const char *failure;  // format of the error's text
    bool is_sync;
};

constexpr switch_row wifi_switch{&qzcap_wifi_switch::wifiswitch, "wifiswitch", true,
                                 "set_wifi_switch failed: %s", false};
constexpr switch_row wps_switch{&qzcap_wifi_switch::wpsswitch, "wpsswitch", false,
                                "set_wps_switch failed: %s", false};
constexpr switch_row sync_switch{&qzcap_wifi_switch::arvoksync, "arvoksync", true, "set_arvoksync failed: %s",
                                 true};

json_ptr get_switch(const switch_row &row) {
    const wifi_switch_ptr switches(qzcap_get_wifi_switch());
    if (!switches)
        return arvok_error_item(err_platform, "qzcap_get_wifi_switch failed");
    const char *state = (*switches).*row.state;
    if (row.is_sync)
        ec->sync_on = _strcmp(state, "on") == 0;
    return status_item(state);
}

// Has the platform set one switch. 0, or non-zero with the reason.
int invoke_set(const char *key, const char *word, std::string &reason) {
    blob_buf_init(&g_ctx.blob_buf, 0);
    blobmsg_add_string(&g_ctx.blob_buf, key, word);
    char *reply = nullptr;
    const int status = ubus_invoke(qzcap_get_ubus_context(), qzcap_get_objid_by_name("qzcapd.wifi"), "set",
                                   g_ctx.blob_buf.head, qzcap_data_cb, &reply, bus_timeout_ms);
    const qz_text answer(reply);
    if (status != 0) {
        reason = ubus_strerror(status);
        return status;
    }
    char *failreason = nullptr;
    const int result = qzcap_parse_result_and_failreason(answer.get(), &failreason);
    const qz_text failtext(failreason);
    reason = text_or_empty(failtext.get());
    return result;
}

void set_switch(const switch_row &row, const cJSON *value) {
    const char *status = json_text(value, "status");
    const wifi_switch_ptr switches(qzcap_get_wifi_switch());
    if (!switches)
        return arvok_set_error(err_platform, "qzcap_get_wifi_switch failed");
    if (!status)
        return arvok_set_error(err_invalid_parameter, "invalid status");
    char *&state = (*switches).*row.state;
    if (row.skip_unchanged && _strcasecmp(status, state) == 0) {
        if (row.is_sync)
            ec->sync_on = _strcmp(state, "on") == 0;
        return;
    }
    const char *word = switch_word(status);
    if (!word)
        return arvok_set_error(err_invalid_parameter, "invalid status: %s", status);
    std::string reason;
    if (invoke_set(row.bus_key, word, reason) != 0)
        return arvok_set_error(err_platform, row.failure, reason.c_str());
    if (row.is_sync)
        ec->sync_on = _strcmp(word, "on") == 0;
}

// --- the schedule ---

// An entry of the request, over the texts of the message, which the platform only reads.
qzcap_wifi_timer timer_record(const cJSON *element) {
    static char yes[] = "yes", no[] = "no";
    const auto text = [element](const char *key) {
        return const_cast<char *>(text_or_empty(json_text(element, key)));
    };
    return {.id = 0,
            .weekday = text("weekday"),
            .time = text("time"),
            .enable = _strcmp(json_text(element, "enable"), "1") == 0 ? yes : no};
}

// The text speaks of deleting also where an entry is set: gateways know it so.
void set_timer_error(std::uint32_t id, char *reason) {
    const qz_text text(reason);
    arvok_set_error(err_platform, "qzcap_wifi_timer_delete %d failed: %s", static_cast<int>(id),
                    text_or_empty(text.get()));
}

}  // namespace

json_ptr get_wifitimer() {
    unsigned int count = 0;
    qzcap_wifi_timer **list = nullptr;
    if (qzcap_wifi_timer_list(&count, &list) < 0)
        return arvok_error_item(err_platform, "qzcap_wifi_timer_list failed");
    const timers_ptr timers(list, {count});
    json_ptr array(cJSON_CreateArray());
    for (unsigned int i = 0; i < count; i++)
        json_append(array.get(), json_object()
                                     .text("weekday", list[i]->weekday)
                                     .text("time", list[i]->time)
                                     .text("enable", _strcmp(list[i]->enable, "yes") == 0 ? "1" : "0")
                                     .take());
    return array;
}

// The device's schedule becomes the request's list; the ids of existing entries are used again in their
// order.
void set_wifitimer(const cJSON *value) {
    if (!cJSON_IsArray(value))
        return arvok_set_error(err_invalid_parameter, "invalid wifitimer");
    unsigned int count = 0;
    qzcap_wifi_timer **list = nullptr;
    if (qzcap_wifi_timer_list(&count, &list) < 0)
        return arvok_set_error(err_platform, "qzcap_wifi_timer_list failed");
    const timers_ptr timers(list, {count});
    char *reason = nullptr;
    unsigned int i = 0;
    for (const cJSON *element = value->child; element; element = element->next, i++) {
        const qzcap_wifi_timer record = timer_record(element);
        if (i < count) {
            if (qzcap_wifi_timer_set(list[i]->id, &record, &reason) < 0)
                return set_timer_error(list[i]->id, reason);
        } else if (qzcap_wifi_timer_add(&record, &reason) < 0) {
            return arvok_set_platform_error("qzcap_wifi_timer_add", reason);
        }
    }
    for (; i < count; i++)
        if (qzcap_wifi_timer_delete(list[i]->id, &reason) < 0)
            return set_timer_error(list[i]->id, reason);
}

json_ptr get_ledswitch() {
    const qz_text state(qzcap_get_led_switch());
    return state ? status_item(state.get()) : arvok_error_item(err_platform, "qzcap_get_led_switch failed");
}

void set_ledswitch(const cJSON *value) {
    const char *status = json_text(value, "status");
    if (!status)
        return arvok_set_error(err_invalid_parameter, "invalid status");
    const char *word = switch_word(status);
    if (!word)
        return arvok_set_error(err_invalid_parameter, "invalid status: %s", status);
    char *reason = nullptr;
    if (qzcap_set_led_switch(word, &reason) < 0)
        arvok_set_platform_error("qzcap_set_led_switch", reason);
}

json_ptr get_wifiswitch() {
    return get_switch(wifi_switch);
}
json_ptr get_wpsswitch() {
    return get_switch(wps_switch);
}
json_ptr get_syncswitch() {
    return get_switch(sync_switch);
}
void set_wifiswitch(const cJSON *value) {
    set_switch(wifi_switch, value);
}
void set_wpsswitch(const cJSON *value) {
    set_switch(wps_switch, value);
}
void set_syncswitch(const cJSON *value) {
    set_switch(sync_switch, value);
}

}  // namespace arvok
