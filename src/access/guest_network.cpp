#include "access/guest_network.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "access/guest_interface.h"
#include "access/outcome.h"
#include "access/texts.h"
#include "base/files.h"
#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char index_file[] = "extcc-gst-idx.cfg";
constexpr char closing_file[] = "extcc-gst-tmr.cfg";
constexpr std::size_t index_file_max = 15;
constexpr std::size_t followed_max = 128;  // bytes of the closing time's file, when it is followed
constexpr std::size_t told_max = 160;      // and when it is told

constexpr int apply_delay_ms = 100;
constexpr int clock_retry_s = 60;
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

// Whether a file is on the disk as it should be; says so in the log if not.
bool saved(const std::string &path, const std::optional<std::string> &why) {
    if (why)
        log_printf("[ERROR] extcc: failed to save %s %s\n", path.c_str(), why->c_str());
    return !why;
}

void add_main_ssid(bus_message &reply, const char *name, int band) {
    const platform::access_point_record interface(qzcap_wifi_ap_get(band, 1));
    reply.text(name, interface ? interface->ssid : nullptr);
}

}  // namespace

guest_network::guest_network(const std::string &folder, wall_clock clock)
    : index_path_(folder + index_file),
      closing_path_(folder + closing_file),
      clock_(clock),
      timer_(bind<&guest_network::follow_times>(*this)) {}

// --- the files ---

// The interface's index in its file; 0 when there is none.
int guest_network::index() const {
    return std::atoi(read_file(index_path_, index_file_max).value_or("").c_str());
}

bool guest_network::remember(int index) {
    return saved(index_path_, save_file(index_path_, std::to_string(index)));
}

// The index in the file; without a file that of the guest interface, which goes into the file.
int guest_network::known_index() {
    if (file_exists(index_path_))
        return index();
    const int found = find_guest_interface().value_or(listed_guest()).index;
    if (found >= 1)
        remember(found);
    return found;
}

// The closing time goes first: without it the index does nothing.
bool guest_network::remove_files() {
    const auto closing = read_file(closing_path_, told_max);
    if (!saved(closing_path_, remove_file(closing_path_)))
        return false;
    if (saved(index_path_, remove_file(index_path_)))
        return true;
    if (closing)
        save_file(closing_path_, *closing);
    return false;
}

// Nothing without a file, and of one that no command has written.
std::optional<guest_schedule> guest_network::closing() const {
    const std::string text = read_file(closing_path_, followed_max).value_or("");
    char enable[8] = "", last_time[8] = "";
    long long start = 0;
    if (std::sscanf(text.c_str(), "%*[^\t]\t%7[^\t]\t%*[^\t]\t%lld\t%*[^\t]\t%7[^\n]", enable, &start,
                    last_time) != 3)
        return std::nullopt;
    return guest_schedule{std::atoi(enable) != 0, start, std::atoi(last_time)};
}

// --- opening and closing ---

// A timer reaches 24 days; whoever set the clock that far back gets an early check.
void guest_network::look_again(std::int64_t seconds) {
    const int delay = static_cast<int>(std::min<std::int64_t>(seconds, INT_MAX / 1000));
    log_printf("extcc_guestssid_cb (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
               delay / 3600, delay % 3600 / 60);
    timer_.arm(delay * 1000);
}

void guest_network::follow_times() {
    timer_.cancel();
    const std::optional<guest_schedule> schedule = closing();
    if (!schedule)
        return refused_.reset();
    const std::time_t now = clock_();
    if (schedule->last_time != guest_forever && now < clock_set_after)
        return look_again(clock_retry_s);
    const guest_action action = guest_action_at(*schedule, now);
    if (switch_interface(index(), action.on)) {
        refused_.reset();
        if (action.delay > 0)
            look_again(action.delay);
        return;
    }
    if (!refused_)
        refused_.emplace();
    refused_->refused(uptime());
    const std::int64_t next_try = refused_->remaining(uptime());
    look_again(action.delay > 0 ? std::min(action.delay, next_try) : next_try);
}

void guest_network::clock_was_set() {
    const std::optional<guest_schedule> schedule = closing();
    if (timer_.is_armed() || (schedule && guest_action_at(*schedule, clock_()).delay > 0))
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

    const int known = index();
    const std::optional<listed_guest> found = find_guest_interface();
    if (!found)
        return add_outcome(reply, "failed to add/set guest wifi", "-102");
    // The closing time that the command ends goes first: at the next start it would undo the command.
    const auto ended =
        contradicts_closing(*enable == 1, found->enabled) ? read_file(closing_path_, told_max) : std::nullopt;
    if (ended && !saved(closing_path_, remove_file(closing_path_)))
        return add_outcome(reply, save_failed, "-1");
    const interface_outcome outcome = set_guest_interface(
        {*ssid, *password, encryptions[*cipher - 1], *enable == 1, *hidden}, found->index, known);
    const bool is_set = !outcome.error && outcome.index >= 1;
    const bool is_kept = is_set && (outcome.index == known || remember(outcome.index));
    if (ended && !is_kept)
        save_file(closing_path_, *ended);
    if (outcome.error)
        return add_outcome(reply, *outcome.error, "-102");
    if (!is_set)
        return add_outcome(reply, "failed to add/set guest wifi", "-102");
    if (!is_kept) {
        undo(outcome);
        return add_outcome(reply, save_failed, "-1");
    }
    if (ended)
        follow_times();  // nothing to follow any more
    add_outcome(reply, "", "0");
}

// Whether a command wants the network otherwise than its closing time does now. While the clock is not set
// that is not known, but one that changes the network is meant.
bool guest_network::contradicts_closing(bool enable, bool is_enabled) const {
    const std::optional<guest_schedule> schedule = closing();
    if (!schedule)
        return false;
    const std::time_t now = clock_();
    if (schedule->last_time != guest_forever && now < clock_set_after)
        return enable != is_enabled;
    return guest_action_at(*schedule, now).on != enable;
}

// --- GET_GUEST_WIFI ---

void guest_network::add_closing(bus_message &reply) const {
    const std::string text = read_file(closing_path_, told_max).value_or("");
    char enable[8] = "", start[32] = "", last_time[8] = "";
    std::sscanf(text.c_str(), "%*[^\t]\t%7[^\t]\t%31[^\t]\t%*[^\t]\t%*[^\t]\t%7[^\n]", enable, start,
                last_time);
    reply.text("TimerEnable", enable);
    reply.text("GuestWifiStartTime", start);
    reply.text("LastTime", last_time);
}

void guest_network::get(json::view, bus_message &reply) {
    const int index = known_index();
    const platform::access_point_record interface = get_interface(index);
    if (!interface && file_exists(index_path_) && find_interface(index) == presence::gone)
        saved(index_path_, remove_file(index_path_));
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
            add_closing(reply);
        }
    }
    add_success(reply);
}

// --- DELETE_GUEST_WIFI ---

// The files first: with them gone nothing closes the next guest network, whatever the platform says.
void guest_network::remove(json::view, bus_message &reply) {
    const int known = index();
    if (!remove_files())
        return add_outcome(reply, save_failed, "-1");
    follow_times();
    const auto fault = known > 0 ? delete_interface(known) : std::nullopt;
    if (!fault)
        return add_success(reply);
    reply.text("Status", "-102");
    reply.text("FailReaon", *fault);  // so spelled
}

// --- SET_GUEST_WIFI_CLOSE_TIMER ---

void guest_network::set_closing(json::view message, bus_message &reply) {
    const int known = index();
    if (known < 1)
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
        if (!saved(closing_path_, save_file(closing_path_, closing_line(known, *enable == 1, minutes, now))))
            return add_outcome(reply, save_failed, "-1");
        refused_.reset();
    }
    timer_.arm(apply_delay_ms);
    add_outcome(reply, "", "0");
}

}  // namespace arvok::access
