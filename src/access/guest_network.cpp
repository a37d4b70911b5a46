#include "access/guest_network.h"

#include <algorithm>
#include <climits>
#include <iterator>

#include "access/guest_interface.h"
#include "access/outcome.h"
#include "access/texts.h"
#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr int apply_delay_ms = 100;
constexpr std::int64_t clock_retry_s = 60;
constexpr unsigned long minutes_max = 1440;
constexpr char no_closing[] = "-1111";

// A minute as the closing time's file has it.
std::string minute_text(std::time_t t) {
    const std::tm tm = china_time(t);
    return format("%d-%02d-%02d %02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                  tm.tm_min);
}

// Numbers as numbers: a text like "0060" is one, but its field in the file has no room for more zeros.
std::string closing_line(int index, bool enable, std::optional<std::uint32_t> minutes, std::time_t now) {
    if (!minutes)
        return format("%d\t%d\t0\t0\t0\t%s\n", index, enable, no_closing);
    const std::string start = minute_text(now), end = minute_text(now + std::time_t{60} * *minutes);
    return format("%d\t%d\t%s\t%lld\t%s\t%u\n", index, enable, start.c_str(), static_cast<long long>(now),
                  end.c_str(), *minutes);
}

// A clock that stands before the closing time's start tells no more than one that is not set: the device has
// started with an old date.
bool is_time_known(const guest_schedule &schedule, std::time_t now) {
    return schedule.last_time == guest_forever || (now >= clock_set_after && now >= schedule.start);
}

// Seconds until it may be known; one that was set back by little comes to the start by itself.
std::int64_t clock_retry(const guest_schedule &schedule, std::time_t now) {
    return now < schedule.start ? std::min(clock_retry_s, schedule.start - now) : clock_retry_s;
}

void add_main_ssid(bus_message &reply, const char *name, int band) {
    const platform::access_point_record interface(platform::call(qzcap_wifi_ap_get, band, 1));
    reply.text(name, interface ? interface->ssid : nullptr);
}

}  // namespace

guest_network::guest_network(const std::string &folder, wall_clock clock)
    : files_(folder), clock_(clock), timer_(bind<&guest_network::follow_times>(*this)) {}

// --- opening and closing ---

// A timer reaches 24 days; whoever set the clock that far back gets an early check.
void guest_network::look_again(std::int64_t seconds) {
    const int delay = static_cast<int>(std::min<std::int64_t>(seconds, INT_MAX / 1000));
    log_printf("extcc_guestssid_cb (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
               delay / 3600, delay % 3600 / 60);
    timer_.arm(delay * 1000);
}

// `change`: seconds until it is to be otherwise; 0: never.
void guest_network::try_again(std::int64_t change, bool was_tried) {
    if (!refused_)
        refused_.emplace();
    refused_->failed(uptime(), was_tried);
    const std::int64_t next_try = refused_->remaining(uptime());
    look_again(change > 0 ? std::min(change, next_try) : next_try);
}

void guest_network::follow_times() {
    timer_.cancel();
    const std::optional<guest_closing> closing = files_.closing();
    if (!closing)
        return try_again(0);
    if (!closing->schedule)
        return refused_.reset();
    const std::time_t now = clock_();
    if (!is_time_known(*closing->schedule, now))
        return look_again(clock_retry(*closing->schedule, now));
    const guest_action action = guest_action_at(*closing->schedule, now);
    const std::optional<guest_index> known = files_.index();
    const std::size_t held_back = platform::gate::held_back();
    if (!known || !switch_interface(known->index, action.on))
        return try_again(action.delay, platform::gate::held_back() == held_back);
    refused_.reset();
    if (action.delay > 0)
        look_again(action.delay);
}

void guest_network::clock_was_set() {
    const std::optional<guest_closing> closing = files_.closing();
    if (!closing)
        return try_again(0);
    if (timer_.is_armed() || (closing->schedule && guest_action_at(*closing->schedule, clock_()).delay > 0))
        follow_times();
}

// --- SET_GUEST_WIFI ---

void guest_network::set(json::view message, bus_message &reply) {
    const json::view info = message["Info"];
    if (!info.is_array())
        return add_outcome(reply, info_not_array, "-201");
    const json::view wanted = info.first();
    if (!wanted)
        return remove(message, reply);

    const auto ssid = wanted["SSID"].text(), password = wanted["PWD"].text();
    const auto cipher_text = wanted["ENCRYPT"].text(), enable_text = wanted["Enable"].text();
    if (!cipher_text || !enable_text || !ssid || !password)
        return add_outcome(reply, "Enable/ENCRYPT/SSID/PWD not found", "-201");
    const auto enable = number_in(enable_text, 0, 1);
    if (!enable)
        return add_outcome(reply, "invalid Enable", "-1");
    const auto hidden = number_in(wanted["SSIDHide"].text(), 0, 1);
    if (!hidden)
        return add_outcome(reply, "invalid SSIDHide", "-1");
    const auto cipher = number_in(cipher_text, 1, std::size(encryptions));
    if (!cipher)
        return add_outcome(reply, "invalid ENCRYPT", "-1");

    const std::optional<guest_index> known = files_.index();
    const std::optional<guest_closing> closing = known ? files_.closing() : std::nullopt;
    if (!closing)
        return add_outcome(reply, save_failed, "-1");
    const std::optional<listed_guest> found = find_guest_interface();
    if (!found)
        return add_outcome(reply, "failed to add/set guest wifi", "-102");
    // The closing time that the command ends goes first: at the next start it would undo the command.
    const bool ends = closing->schedule && contradicts(*closing->schedule, *enable == 1, found->enabled);
    if (ends && !files_.remove_closing())
        return add_outcome(reply, save_failed, "-1");
    const interface_outcome outcome = set_guest_interface(
        {*ssid, *password, encryptions[*cipher - 1], *enable == 1, *hidden}, found->index, known->index);
    const bool is_set = !outcome.error && outcome.index >= 1;
    const bool is_kept = is_set && (outcome.index == known->index || files_.save_index(outcome.index));
    if (ends && !is_kept)
        files_.save_closing(closing->text);
    if (outcome.error)
        return add_outcome(reply, *outcome.error, "-102");
    if (!is_set)
        return add_outcome(reply, "failed to add/set guest wifi", "-102");
    if (!is_kept) {
        undo(outcome);
        return add_outcome(reply, save_failed, "-1");
    }
    if (ends)
        follow_times();  // nothing to follow any more
    add_outcome(reply, "", "0");
}

// Whether a command wants the network otherwise than its closing time does now. While that is not known, a
// network that is closed is not to be opened by the clock that is set later, and one that is opened is meant.
bool guest_network::contradicts(const guest_schedule &schedule, bool enable, bool is_enabled) const {
    const std::time_t now = clock_();
    if (!is_time_known(schedule, now))
        return !enable || !is_enabled;
    return guest_action_at(schedule, now).on != enable;
}

// --- GET_GUEST_WIFI ---

// The index in the file; without a file that of the guest interface, which goes into the file. The file goes
// when the platform does not hold its interface any more.
void guest_network::get(json::view, bus_message &reply) {
    const std::optional<guest_index> known = files_.index();
    const bool has_file = known && known->has_file;
    const int index = has_file ? known->index : find_guest_interface().value_or(listed_guest()).index;
    if (known && !has_file && index >= 1)
        files_.save_index(index);
    const platform::access_point_record interface = get_interface(index);
    if (!interface && has_file && find_interface(index) == presence::gone)
        files_.remove_index();
    {
        const bus_message::array info(reply, "Info");
        if (interface) {
            const std::string number = std::to_string(index);
            const bus_message::table guest(reply);
            add_main_ssid(reply, "SSID1", QZCAP_AP_2G);
            add_main_ssid(reply, "SSID2", QZCAP_AP_5G);
            reply.text("SSIDIndex", number);
            reply.text("GuestSSID", interface->ssid);
            reply.text("SSIDObjectPath", "qzcapd.wifi.1.ap." + number);
            reply.text("Encrypt", std::to_string(encryption_number(view_of(interface->auth))));
            reply.text("PWD", interface->key);
            reply.text("SSIDEnable", view_of(interface->enable) == "yes" ? "1" : "0");
            reply.text("SSIDHide", std::to_string(static_cast<std::int32_t>(interface->hidden)));
            const guest_closing closing = files_.closing().value_or(guest_closing());
            reply.text("TimerEnable", closing.enable);
            reply.text("GuestWifiStartTime", closing.start);
            reply.text("LastTime", closing.last_time);
        }
    }
    add_success(reply);
}

// --- DELETE_GUEST_WIFI ---

// The files first: with them gone nothing closes the next guest network, whatever the platform says.
void guest_network::remove(json::view, bus_message &reply) {
    const std::optional<guest_index> known = files_.index();
    if (!known || !files_.remove_all())
        return add_outcome(reply, save_failed, "-1");
    follow_times();
    const auto fault = known->index > 0 ? delete_interface(known->index) : std::nullopt;
    if (!fault)
        return add_success(reply);
    reply.text("Status", "-102");
    reply.text("FailReaon", *fault);  // so spelled
}

// --- SET_GUEST_WIFI_CLOSE_TIMER ---

void guest_network::set_closing(json::view message, bus_message &reply) {
    const std::optional<guest_index> known = files_.index();
    if (!known)
        return add_outcome(reply, save_failed, "-1");
    if (known->index < 1)
        return add_outcome(reply, "Guest WiFi not found", "-105");
    const json::view info = message["Info"], wanted = info.first();
    if (info.is_array() && wanted) {
        const auto last_time = wanted["LastTime"].text(), enable_text = wanted["Enable"].text();
        if (!last_time || !enable_text)
            return add_outcome(reply, "Enable/LastTime not found", "-201");
        const auto minutes = number_in(last_time, 1, minutes_max);
        if (!minutes && last_time != no_closing)
            return add_outcome(reply, "invalid LastTime", "-1");
        const auto enable = number_in(enable_text, 0, 1);
        if (!enable)
            return add_outcome(reply, "invalid Enable", "-1");
        const std::time_t now = clock_();
        if (now < clock_set_after)
            return add_outcome(reply, "Time not sync", "-107");
        if (!files_.save_closing(closing_line(known->index, *enable == 1, minutes, now)))
            return add_outcome(reply, save_failed, "-1");
        refused_.reset();
    }
    timer_.arm(apply_delay_ms);
    add_outcome(reply, "", "0");
}

}  // namespace arvok::access
