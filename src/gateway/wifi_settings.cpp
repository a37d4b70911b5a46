// The "wifi" item and setting: both radios and the main access-point interface of each band.
//
// A device in bridge mode applies a request only when it differs from what is set; the first difference found
// decides for the whole request. A router applies every request and afterwards becomes a bridge.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>

#include "base/log.h"
#include "gateway/bandwidth.h"
#include "gateway/settings.h"
#include "gateway/status_fields.h"
#include "gateway/status_items.h"

namespace arvok::gateway {
namespace {

using platform::band;
using given_text = std::optional<std::string_view>;

constexpr std::uint32_t main_interface = 1;

// --- status ---

void add_radio(json::writer &to, const band &of, const qzcap_wifiinfo &radio) {
    to.open_object("radio")
        .text("mode", of.word)
        .number("channel", radio.channel)
        .number("currentChannel", radio.current_channel)
        .text("txpower", radio.txpower)
        .text("bandwidth", bandwidth_text(radio.bandwidth))
        .text("wifimode", radio.wifimode)
        .close();
}

void add_interfaces(json::writer &to, std::span<qzcap_wifi_ap *const> interfaces) {
    to.open_array("ap");
    for (const qzcap_wifi_ap *interface : interfaces) {
        to.open_object().number("apidx", static_cast<double>(interface->index) - 1);
        add_fields(to, *interface, interface_fields);
        to.close();
    }
    to.close();
}

// --- setting ---

// The interface members that a request may give, with the fields that they set.
struct interface_member {
    const char *key;
    char *qzcap_wifi_ap::*text;
};
constexpr interface_member interface_members[] = {{"enable", &qzcap_wifi_ap::enable},
                                                  {"ssid", &qzcap_wifi_ap::ssid},
                                                  {"key", &qzcap_wifi_ap::key},
                                                  {"auth", &qzcap_wifi_ap::auth},
                                                  {"encrypt", &qzcap_wifi_ap::encrypt}};

// What a request gives for a radio.
struct radio_request {
    explicit radio_request(json::view radio)
        : enable(radio["enable"].text()),
          txpower(radio["txpower"].text()),
          wifimode(radio["wifimode"].text()),
          bandwidth(radio["bandwidth"].text()),
          channel(radio["channel"].integer()) {
        if (const given_text text = radio["channel"].text())
            channel =
                static_cast<int>(std::clamp<long>(std::strtol(text->data(), nullptr, 10), INT_MIN, INT_MAX));
    }

    given_text enable, txpower, wifimode, bandwidth;
    std::optional<int> channel;
};

// What is not known differs from every text that is given.
bool differs(given_text given, const char *current) {
    return given && (!current || *given != current);
}

enum class check { same, differs, failed };  // a request compared with what is set

class wifi_setting {
  public:
    wifi_setting(request &in, json::view value) : request_(in), cache_(in.services.cache), value_(value) {}

    void run() {
        if (!fetch())
            return;
        if (cache_.is_router()) {
            log_printf("[INFO] router mode\n");
        } else if (const check changed = compare(); changed != check::differs) {
            if (changed == check::same)
                log_printf("[INFO] wifi config no changed\n");
            return;
        }
        apply();
    }

  private:
    // False, which is then the caller's result.
    bool fail(error_code code, const char *text) {
        request_.fail(code, "%s", text);
        return false;
    }

    bool fetch() {
        if (!cache_.refresh_radios() || !cache_.refresh_device())
            return fail(platform_failed, "update_wifi_info failed");
        for (const band &of : cache_.device_bands()) {
            platform::access_point_record &interface = main_interfaces_[&of - platform::bands];
            interface.reset(platform::call(qzcap_wifi_ap_get, of.access_point, main_interface));
            if (!interface)
                return fail(platform_failed, of.access_point == QZCAP_AP_2G ? "qzcap_wifi_ap_get 2.4G failed"
                                                                            : "qzcap_wifi_ap_get 5G failed");
        }
        return true;
    }

    // --- what a request names; recorded when it is not right ---

    const band *named_band(json::view radio) {
        const given_text mode = radio["mode"].text();
        for (const band &known : platform::bands)
            if (mode == known.word)
                return &known;
        request_.fail(invalid_parameter, "invalid mode \"%s\"", mode.value_or("").data());
        return nullptr;
    }

    // The code of the bandwidth that is given, else the current one.
    std::optional<std::uint32_t> named_bandwidth(const radio_request &given, const qzcap_wifiinfo &current) {
        if (!given.bandwidth)
            return current.bandwidth;
        const std::optional<std::uint32_t> code = bandwidth_code(*given.bandwidth);
        if (!code)
            request_.fail(invalid_parameter, "invalid bandwidth \"%s\"", given.bandwidth->data());
        return code;
    }

    // The interfaces of a band's object; none when they are no array.
    json::view named_interfaces(json::view item) {
        const json::view interfaces = item["ap"];
        if (interfaces.is_array())
            return interfaces;
        request_.fail(invalid_parameter, "invalid ap");
        return {};
    }

    // Only the main interface can be set.
    bool names_main_interface(json::view element) {
        return element["apidx"].number() == 0.0 || fail(invalid_parameter, "invalid apidx");
    }

    // --- comparing: behind a difference nothing is looked at, not even whether it is valid ---

    check compare() {
        for (const json::view item : value_) {
            const json::view radio = item["radio"];
            const band *of = named_band(radio);
            if (!of)
                return check::failed;
            const qzcap_wifiinfo *current = cache_.radio(*of);
            if (!current) {
                log_printf("[INFO] dev not support 5G\n");
                return check::same;
            }
            check result = compare_radio(radio_request(radio), *current);
            if (result == check::same)
                result = compare_interfaces(item, *of);
            if (result != check::same)
                return result;
        }
        return check::same;
    }

    check compare_radio(const radio_request &given, const qzcap_wifiinfo &current) {
        if (differs(given.enable, current.enable) ||
            given.channel.value_or(current.channel) != current.channel ||
            differs(given.txpower, current.txpower))
            return check::differs;
        const std::optional<std::uint32_t> bandwidth = named_bandwidth(given, current);
        if (!bandwidth)
            return check::failed;
        return *bandwidth != current.bandwidth || differs(given.wifimode, current.wifimode) ? check::differs
                                                                                            : check::same;
    }

    check compare_interfaces(json::view item, const band &of) {
        const json::view interfaces = named_interfaces(item);
        if (!interfaces)
            return check::failed;
        for (const json::view element : interfaces) {
            if (!names_main_interface(element))
                return check::failed;
            for (const interface_member &member : interface_members)
                if (differs(element[member.key].text(), interface_of(of).*member.text))
                    return check::differs;
        }
        return check::same;
    }

    // --- applying ---

    void apply() {
        for (const json::view item : value_) {
            const json::view radio = item["radio"];
            const band *of = named_band(radio);
            if (!of)
                return;
            const qzcap_wifiinfo *current = cache_.radio(*of);
            if (!current)
                break;  // the device lacks the band: what follows is passed over
            if (!apply_radio(radio_request(radio), *of, *current) || !apply_interfaces(item, *of))
                return;
        }
        if (request_.errcode() == 0)
            request_.actions |= action_bridge;
    }

    bool apply_radio(const radio_request &given, const band &of, const qzcap_wifiinfo &current) {
        const std::optional<std::uint32_t> bandwidth = named_bandwidth(given, current);
        if (!bandwidth)
            return false;
        // "enable" counts as a change whenever it is given, also when it is what is set.
        if (!given.enable && given.channel.value_or(current.channel) == current.channel &&
            !differs(given.txpower, current.txpower) && *bandwidth == current.bandwidth &&
            !differs(given.wifimode, current.wifimode))
            return true;
        qzcap_wifiinfo record{};
        record.enable = chosen(given.enable, current.enable);
        record.channel = given.channel.value_or(current.channel);
        record.txpower = chosen(given.txpower, current.txpower);
        record.bandwidth = *bandwidth;
        record.wifimode = chosen(given.wifimode, current.wifimode);
        return platform::call(qzcap_set_wifiinfo_async, of.radio, &record, 0) >= 0 ||
               fail(platform_failed, "qzcap_set_wifiinfo_async failed");
    }

    bool apply_interfaces(json::view item, const band &of) {
        const json::view interfaces = named_interfaces(item);
        if (!interfaces)
            return false;
        qzcap_wifi_ap &current = interface_of(of);
        for (const json::view element : interfaces) {
            if (!names_main_interface(element))
                return false;
            for (const interface_member &member : interface_members)
                if (const given_text given = element[member.key].text(); differs(given, current.*member.text))
                    platform::replace_text(current.*member.text, *given);
            if (platform::call(qzcap_wifi_ap_set_async, of.access_point, main_interface, &current, 0,
                               nullptr) < 0)
                return fail(platform_failed, "qzcap_wifi_ap_set_async failed");
        }
        return true;
    }

    static char *chosen(given_text given, char *current) { return given ? platform::lent(*given) : current; }

    qzcap_wifi_ap &interface_of(const band &of) const { return *main_interfaces_[&of - platform::bands]; }

    request &request_;
    platform::cache &cache_;
    json::view value_;
    platform::access_point_record main_interfaces_[std::size(platform::bands)];
};

}  // namespace

bool get_wifi(request &r, json::writer &item) {
    if (!r.services.cache.refresh_radios())
        return r.fail_item(platform_failed, "update_wifi_info failed");
    if (!r.services.cache.refresh_access_points())
        return r.fail_item(platform_failed, "update_ap_info failed");
    item.open_array();
    for (const band &of : r.services.cache.device_bands())
        if (const qzcap_wifiinfo *radio = r.services.cache.radio(of)) {
            item.open_object();
            add_radio(item, of, *radio);
            add_interfaces(item, r.services.cache.access_points(of));
            item.close();
        }
    item.close();
    return true;
}

void set_wifi(request &r, json::view value) {
    if (!value.is_array())
        return r.fail(invalid_parameter, "invalid wifi");
    wifi_setting(r, value).run();
}

}  // namespace arvok::gateway
