// The commands about the guest network: one 2.4 GHz interface with the platform's guest mark, whose index and
// closing time are kept in files.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "arvok/app_messages.h"
#include "common/clock.h"
#include "common/files.h"
#include "common/text.h"
#include "context.h"
#include "extcc/rules.h"
#include "extcc/schedule.h"

namespace arvok {
namespace {

constexpr int apply_delay_ms = 100;
constexpr unsigned int spare_interfaces_from = 2;  // the interfaces before have their own purpose
constexpr int timer_line_size = 160;
constexpr char no_closing[] = "-1111";

// --- encryption: its number is its place in the table, counted from 1 ---

struct encryption {
    const char *auth, *encrypt;
};

constexpr encryption encryptions[] = {
    {"open", "none"}, {"share", "none"}, {"wpa", "aestkip"}, {"wpa2", "aestkip"}, {"wpa2psk", "aestkip"},
};
constexpr int encryption_count = static_cast<int>(std::size(encryptions));

int encryption_number(const char *auth) {
    int number = 1;
    while (number < encryption_count && _strcmp(encryptions[number - 1].auth, auth) != 0)
        number++;
    return number;
}

// --- the files ---

void forget_guest(const char *file) {
    std::remove(rule_path(file).c_str());
}

void remember_guest(int index) {
    const std::string text = std::to_string(index);
    _write_file(rule_path(guest_index_file).c_str(), text.data(), text.size());
}

// --- the platform's interfaces ---

wifi_ap_ptr get_ap(int index) {
    return wifi_ap_ptr(index > 0 ? qzcap_wifi_ap_get(QZCAP_AP_2G, static_cast<std::uint32_t>(index))
                                 : nullptr);
}

wifi_aps_ptr list_aps() {
    unsigned int count = 0;
    qzcap_wifi_ap **list = nullptr;
    if (qzcap_wifi_ap_list(QZCAP_AP_2G, &count, &list) < 0)
        return nullptr;
    return wifi_aps_ptr(list, {count});
}

/// The first interface from position `from` on that meets the condition, or null.
template <typename Condition>
qzcap_wifi_ap *find_ap(const wifi_aps_ptr &aps, unsigned int from, Condition condition) {
    for (unsigned int i = from; aps && i < aps.get_deleter().count; i++)
        if (condition(*aps.get()[i]))
            return aps.get()[i];
    return nullptr;
}

/// Returns the call's result; `error` is the platform's text, if any.
int set_ap(const qzcap_wifi_ap &ap, qz_text &error) {
    char *text = nullptr;
    const int result = qzcap_wifi_ap_set(QZCAP_AP_2G, ap.index, &ap, &text);
    error.reset(text);
    return result;
}

/// The guest interface's index, 0 for none.
int _find_guest_ap() {
    const wifi_aps_ptr aps = list_aps();
    const qzcap_wifi_ap *guest = find_ap(aps, 0, [](const qzcap_wifi_ap &ap) { return ap.guest == 1; });
    return guest ? static_cast<int>(guest->index) : 0;
}

// --- SET_GUEST_WIFI ---

struct guest_settings {
    const char *ssid, *password;
    const encryption &cipher;
    bool enable;
    std::uint32_t hidden;
};

void fill(qzcap_wifi_ap &ap, const guest_settings &settings) {
    replace_text(ap.enable, settings.enable ? "yes" : "no");
    replace_text(ap.ssid, settings.ssid);
    replace_text(ap.key, settings.password);
    replace_text(ap.auth, settings.cipher.auth);
    replace_text(ap.encrypt, settings.cipher.encrypt);
    ap.hidden = settings.hidden;
    ap.guest = 1;
}

/// The index of a spare interface that becomes the guest's, 0 for none.
int use_spare_ap(const guest_settings &settings) {
    const wifi_aps_ptr aps = list_aps();
    qzcap_wifi_ap *spare = find_ap(aps, spare_interfaces_from, [](const qzcap_wifi_ap &ap) {
        return _strcmp(ap.enable, "no") == 0 && ap.inuse == 0;
    });
    if (!spare)
        return 0;
    fill(*spare, settings);
    qz_text error;
    if (set_ap(*spare, error) != 0 && error)
        qzcap_printf("%s (%d): extcc wifi ap.%d set failed: %s\n", "_add_guest_wifi", __LINE__,
                     static_cast<int>(spare->index), error.get());
    return static_cast<int>(spare->index);
}

/// The index of the new interface, 0 for none. A platform that adds none may have a spare one.
int _add_guest_wifi(const guest_settings &settings) {
    const wifi_ap_ptr ap(static_cast<qzcap_wifi_ap *>(qzcap_calloc(1, sizeof(qzcap_wifi_ap))));
    if (!ap) {
        qzcap_printf("%s (%d): extcc oom\n", "_add_guest_wifi", __LINE__);
        return 0;
    }
    fill(*ap, settings);
    char *text = nullptr;
    const int index = qzcap_wifi_ap_add(QZCAP_AP_2G, ap.get(), &text);
    const qz_text error(text);
    if (index >= 1 && !error)
        return index;
    qzcap_printf("%s (%d): extcc wifi ap add failed: %s, try find available ap\n", "_add_guest_wifi",
                 __LINE__, text_or_empty(error.get()));
    return use_spare_ap(settings);
}

/// The index of the interface that has the settings now, 0 for none; `error` when the platform refused them.
int set_guest_ap(const guest_settings &settings, qz_text &error) {
    const int index = _find_guest_ap();
    if (index < 1)
        return _add_guest_wifi(settings);
    const wifi_ap_ptr ap = get_ap(index);
    if (!ap)
        return 0;
    fill(*ap, settings);
    if (set_ap(*ap, error) == 0)
        error.reset();
    return static_cast<int>(ap->index);
}

// --- GET_GUEST_WIFI ---

/// The index in the file; without a file that of the guest interface, which goes into the file.
int known_guest_index() {
    if (_get_file_size(rule_path(guest_index_file).c_str()) >= 0)
        return guest_index();
    const int index = _find_guest_ap();
    if (index >= 1)
        remember_guest(index);
    return index;
}

void add_main_ssid(const char *name, int band) {
    const wifi_ap_ptr ap(qzcap_wifi_ap_get(band, 1));
    add_reply_text(name, ap ? ap->ssid : nullptr);
}

void add_closing() {
    char text[timer_line_size + 1] = "", enable[8] = "", start[32] = "", last_time[8] = "";
    _read_file(rule_path(guest_timer_file).c_str(), text, timer_line_size);
    std::sscanf(text, "%*[^\t]\t%7[^\t]\t%31[^\t]\t%*[^\t]\t%*[^\t]\t%7[^\n]", enable, start, last_time);
    add_reply_text("TimerEnable", enable);
    add_reply_text("GuestWifiStartTime", start);
    add_reply_text("LastTime", last_time);
}

void add_guest(const qzcap_wifi_ap &ap, int index) {
    const std::string number = std::to_string(index);
    const reply_table guest;
    add_main_ssid("SSID1", QZCAP_AP_2G);
    add_main_ssid("SSID2", QZCAP_AP_5G);
    add_reply_text("SSIDIndex", number.c_str());
    add_reply_text("GuestSSID", ap.ssid);
    add_reply_text("SSIDObjectPath", ("qzcapd.wifi.1.ap." + number).c_str());
    add_reply_text("Encrypt", std::to_string(encryption_number(ap.auth)).c_str());
    add_reply_text("PWD", ap.key);
    add_reply_text("SSIDEnable", _strcmp(ap.enable, "yes") == 0 ? "1" : "0");
    add_reply_text("SSIDHide", std::to_string(static_cast<std::int32_t>(ap.hidden)).c_str());
    add_closing();
}

// --- DELETE_GUEST_WIFI ---

/// Whether the interface is gone or, where the platform keeps it, disabled.
bool delete_guest_ap(int index, qz_text &error) {
    if (qzcap_wifi_ap_delete(QZCAP_AP_2G, static_cast<std::uint32_t>(index), nullptr) == 0)
        return true;
    const wifi_ap_ptr ap = get_ap(index);
    if (!ap)
        return false;
    replace_text(ap->enable, "no");
    return set_ap(*ap, error) == 0;
}

// --- SET_GUEST_WIFI_CLOSE_TIMER ---

void write_closing(int index, const char *enable, const char *last_time, std::time_t now) {
    char line[timer_line_size];
    int length;
    // Numbers as numbers: a text like "0060" is one, but its field in the file has no room for more zeros.
    if (_strcmp(last_time, no_closing) == 0) {
        length = std::snprintf(line, sizeof line, "%d\t%u\t%s\t%d\t%s\t%s\n", index, uint_value(enable), "0",
                               0, "0", no_closing);
    } else {
        const std::string start = cst_text(now), end = cst_text(now + std::time_t{60} * std::atoi(last_time));
        length =
            std::snprintf(line, sizeof line, "%d\t%u\t%s\t%lld\t%s\t%u\n", index, uint_value(enable),
                          start.c_str(), static_cast<long long>(now), end.c_str(), uint_value(last_time));
    }
    _write_file(rule_path(guest_timer_file).c_str(), line,
                static_cast<std::size_t>(std::clamp(length, 0, timer_line_size - 1)));
}

}  // namespace

void set_guest_wifi(const cJSON *root) {
    const cJSON *info = json_member(root, "Info");
    if (!cJSON_IsArray(info))
        return add_reply_outcome("Info is not array", "-201");
    const cJSON *wanted = info->child;
    if (!wanted)
        return delete_guest_wifi(root);

    const char *cipher = json_text(wanted, "ENCRYPT"), *enable = json_text(wanted, "Enable");
    const char *ssid = json_text(wanted, "SSID"), *password = json_text(wanted, "PWD");
    const char *hide = json_text(wanted, "SSIDHide");
    if (!cipher || !enable || !ssid || !password)
        return add_reply_outcome("Enable/ENCRYPT/SSID/PWD not found", "-201");
    if (!_is_uint_in(enable, 0, 1))
        return add_reply_outcome("invalid Enable", "-1");
    if (!_is_uint_in(hide, 0, 1))
        return add_reply_outcome("invalid SSIDHide", "-1");
    if (!_is_uint_in(cipher, 1, encryption_count))
        return add_reply_outcome("invalid ENCRYPT", "-1");

    const guest_settings settings{ssid, password, encryptions[uint_value(cipher) - 1],
                                  uint_value(enable) == 1, uint_value(hide)};
    qz_text error;
    const int index = set_guest_ap(settings, error);
    if (error)
        return add_reply_outcome(error.get(), "-102");
    if (index < 1)
        return add_reply_outcome("failed to add/set guest wifi", "-102");
    add_reply_outcome("", "0");
    remember_guest(index);
}

void get_guest_wifi(const cJSON *) {
    const int index = known_guest_index();
    const wifi_ap_ptr ap = get_ap(index);
    if (!ap)
        forget_guest(guest_index_file);
    {
        const reply_array info("Info");
        if (ap)
            add_guest(*ap, index);
    }
    add_reply_success();
}

void delete_guest_wifi(const cJSON *) {
    const int index = guest_index();
    qz_text error;
    if (index > 0 && !delete_guest_ap(index, error)) {
        add_reply_text("Status", "-102");
        add_reply_text("FailReaon", error ? error.get() : "guest delete/disable failed");  // so spelled
    } else {
        add_reply_success();
    }
    forget_guest(guest_index_file);
    forget_guest(guest_timer_file);
    uloop_timeout_cancel(&g_ctx.extcc.guest_timer);  // it would close the next guest network
}

void set_guest_wifi_close_timer(const cJSON *root) {
    const int index = guest_index();
    if (index < 1)
        return add_reply_outcome("Guest WiFi not found", "-105");
    const cJSON *info = json_member(root, "Info");
    if (cJSON_IsArray(info) && info->child) {
        const char *last_time = json_text(info->child, "LastTime"),
                   *enable = json_text(info->child, "Enable");
        if (!last_time || !enable)
            return add_reply_outcome("Enable/LastTime not found", "-201");
        if (_strcmp(last_time, no_closing) != 0 && !_is_uint_in(last_time, 1, 1440))
            return add_reply_outcome("invalid LastTime", "-1");
        if (!_is_uint_in(enable, 0, 1))
            return add_reply_outcome("invalid Enable", "-1");
        const std::time_t now = wall_clock();
        if (now < clock_set_after)
            return add_reply_outcome("Time not sync", "-107");
        write_closing(index, enable, last_time, now);
    }
    uloop_timeout_set(&g_ctx.extcc.guest_timer, apply_delay_ms);
    add_reply_outcome("", "0");
}

}  // namespace arvok
