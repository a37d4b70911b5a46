// The "wifi" item and setting: both radios and the main access-point interface of each band.
//
// A device in bridge mode applies a request only when it differs from what is set; the first difference found
// decides for the whole request. A router applies every request and afterwards becomes a bridge.

#include <cstdlib>
#include <iterator>

#include "arvok_client/bands.h"
#include "arvok_client/handlers.h"
#include "common/fields.h"

namespace arvok {
namespace {

constexpr std::uint32_t main_interface = 1;

// --- status ---

constexpr field<qzcap_wifi_ap> ap_fields[] = {
    {"enable", &qzcap_wifi_ap::enable}, {"ssid", &qzcap_wifi_ap::ssid}, {"bssid", &qzcap_wifi_ap::bssid},
    {"key", &qzcap_wifi_ap::key},       {"auth", &qzcap_wifi_ap::auth}, {"encrypt", &qzcap_wifi_ap::encrypt},
};

json_ptr radio_item(const wifi_band &band, const qzcap_wifiinfo &radio) {
    return json_object()
        .text("mode", band.word)
        .number("channel", radio.channel)
        .number("currentChannel", radio.current_channel)
        .text("txpower", radio.txpower)
        .text("bandwidth", bandwidth_text(radio.bandwidth))
        .text("wifimode", radio.wifimode)
        .take();
}

json_ptr ap_items(const wifi_band &band) {
    json_ptr array(cJSON_CreateArray());
    for (const qzcap_wifi_ap *ap : aps_of(band)) {
        json_object item;
        item.number("apidx", static_cast<double>(ap->index) - 1);
        add_fields(item, *ap, ap_fields);
        json_append(array.get(), item.take());
    }
    return array;
}

// --- setting ---

// The interface members that a request may give, with the fields that they set.
struct ap_member {
    const char *key;
    char *qzcap_wifi_ap::*text;
};
constexpr ap_member ap_members[] = {{"enable", &qzcap_wifi_ap::enable},
                                    {"ssid", &qzcap_wifi_ap::ssid},
                                    {"key", &qzcap_wifi_ap::key},
                                    {"auth", &qzcap_wifi_ap::auth},
                                    {"encrypt", &qzcap_wifi_ap::encrypt}};

// What a request gives for a radio; what it does not give is null or not there.
struct radio_request {
    const char *enable;
    const char *txpower;
    const char *wifimode;
    bool has_channel;
    std::int32_t channel;
    const char *bandwidth;
};

radio_request read_radio(const cJSON *radio) {
    radio_request request{.enable = json_text(radio, "enable"),
                          .txpower = json_text(radio, "txpower"),
                          .wifimode = json_text(radio, "wifimode"),
                          .has_channel = false,
                          .channel = 0,
                          .bandwidth = json_text(radio, "bandwidth")};
    const cJSON *channel = json_member(radio, "channel");
    if (cJSON_IsNumber(channel) || cJSON_IsString(channel)) {
        request.has_channel = true;
        request.channel = cJSON_IsNumber(channel) ? channel->valueint : std::atoi(channel->valuestring);
    }
    return request;
}

// The code of the bandwidth that is given, else the current one; false after recording that there is none.
bool bandwidth_code(const radio_request &request, const qzcap_wifiinfo &current, std::uint32_t &code) {
    code = current.bandwidth;
    if (!request.bandwidth)
        return true;
    const int index = get_bandwidth_index(request.bandwidth);
    if (index == unknown_bandwidth) {
        arvok_set_error(err_invalid_parameter, "invalid bandwidth \"%s\"", request.bandwidth);
        return false;
    }
    code = static_cast<std::uint32_t>(index);
    return true;
}

bool differs(const char *given, const char *current) {
    return given && _strcmp(given, current) != 0;
}

// How the comparison of a request with what is set goes on.
enum class check { same, differs, failed };

// In the order of the members: behind a difference nothing is looked at, not even whether it is valid.
check check_radio(const radio_request &request, const qzcap_wifiinfo &current) {
    if (differs(request.enable, current.enable) ||
        (request.has_channel && request.channel != current.channel) ||
        differs(request.txpower, current.txpower))
        return check::differs;
    std::uint32_t code;
    if (!bandwidth_code(request, current, code))
        return check::failed;
    return code != current.bandwidth || differs(request.wifimode, current.wifimode) ? check::differs
                                                                                    : check::same;
}

// The interfaces of a band object; null after recording the error.
const cJSON *ap_array(const cJSON *item) {
    const cJSON *ap = json_member(item, "ap");
    if (cJSON_IsArray(ap))
        return ap;
    arvok_set_error(err_invalid_parameter, "invalid ap");
    return nullptr;
}

// Only the main interface can be set.
bool valid_apidx(const cJSON *element) {
    const cJSON *apidx = json_member(element, "apidx");
    if (cJSON_IsNumber(apidx) && apidx->valuedouble == 0)
        return true;
    arvok_set_error(err_invalid_parameter, "invalid apidx");
    return false;
}

class wifi_setting {
  public:
    explicit wifi_setting(const cJSON *value) : value_(value) {}

    void run() {
        if (!fetch())
            return;
        if (g_ctx.is_router) {
            qzcap_printf("[INFO] router mode\n");
        } else {
            const check changed = compare();
            if (changed == check::failed)
                return;
            if (changed == check::same) {
                qzcap_printf("[INFO] wifi config no changed\n");
                return;
            }
        }
        apply();
    }

  private:
    bool fetch() {
        if (update_wifi_info() != 0 || update_dev_info() != 0) {
            arvok_set_error(err_platform, "update_wifi_info failed");
            return false;
        }
        for (const wifi_band &band : device_bands()) {
            wifi_ap_ptr &ap = main_ap_[&band - bands];
            ap.reset(qzcap_wifi_ap_get(band.ap, main_interface));
            if (!ap) {
                arvok_set_error(err_platform, band.radio == QZCAP_RADIO_2G ? "qzcap_wifi_ap_get 2.4G failed"
                                                                           : "qzcap_wifi_ap_get 5G failed");
                return false;
            }
        }
        return true;
    }

    // The band that an object names. `unsupported` is set, and nothing recorded, for a 5 GHz radio that the
    // device lacks; null otherwise means an unknown name, recorded.
    static const wifi_band *band_of(const cJSON *radio, bool &unsupported) {
        const char *mode = json_text(radio, "mode");
        unsupported = false;
        for (const wifi_band &band : bands) {
            if (_strcmp(mode, band.word) != 0)
                continue;
            // A refresh that found the radio missing leaves nothing to compare with, as on a device without
            // it.
            unsupported = !radio_of(band);
            return unsupported ? nullptr : &band;
        }
        arvok_set_error(err_invalid_parameter, "invalid mode \"%s\"", text_or_empty(mode));
        return nullptr;
    }

    check compare() const {
        for (const cJSON *item = value_->child; item; item = item->next) {
            const cJSON *radio = json_member(item, "radio");
            bool unsupported;
            const wifi_band *band = band_of(radio, unsupported);
            if (unsupported) {
                qzcap_printf("[INFO] dev not support 5G\n");
                return check::same;
            }
            if (!band)
                return check::failed;
            const check result = compare_band(item, radio, *band);
            if (result != check::same)
                return result;
        }
        return check::same;
    }

    check compare_band(const cJSON *item, const cJSON *radio, const wifi_band &band) const {
        const check result = check_radio(read_radio(radio), *radio_of(band));
        if (result != check::same)
            return result;
        const cJSON *ap = ap_array(item);
        if (!ap)
            return check::failed;
        for (const cJSON *element = ap->child; element; element = element->next) {
            if (!valid_apidx(element))
                return check::failed;
            for (const ap_member &member : ap_members)
                if (differs(json_text(element, member.key), (*main_ap(band)).*member.text))
                    return check::differs;
        }
        return check::same;
    }

    void apply() {
        for (const cJSON *item = value_->child; item; item = item->next) {
            const cJSON *radio = json_member(item, "radio");
            bool unsupported;
            const wifi_band *band = band_of(radio, unsupported);
            if (unsupported)
                break;
            if (!band || !apply_radio(radio, *band) || !apply_aps(item, *band))
                return;
        }
        if (ec->errcode == 0)
            ec->actions |= action_bridge;
    }

    static bool apply_radio(const cJSON *radio, const wifi_band &band) {
        const qzcap_wifiinfo &current = *radio_of(band);
        const radio_request request = read_radio(radio);
        std::uint32_t bandwidth;
        if (!bandwidth_code(request, current, bandwidth))
            return false;
        // "enable" counts as changed whenever it is given, also when it is what is set: only its absence does
        // not.
        const bool unchanged = !request.enable &&
                               (!request.has_channel || request.channel == current.channel) &&
                               !differs(request.txpower, current.txpower) && bandwidth == current.bandwidth &&
                               !differs(request.wifimode, current.wifimode);
        if (unchanged)
            return true;
        qzcap_wifiinfo record{};
        record.enable = chosen(request.enable, current.enable);
        record.channel = request.has_channel ? request.channel : current.channel;
        record.txpower = chosen(request.txpower, current.txpower);
        record.bandwidth = bandwidth;
        record.wifimode = chosen(request.wifimode, current.wifimode);
        if (qzcap_set_wifiinfo_async(band.radio, &record, 0) >= 0)
            return true;
        arvok_set_error(err_platform, "qzcap_set_wifiinfo_async failed");
        return false;
    }

    bool apply_aps(const cJSON *item, const wifi_band &band) {
        const cJSON *ap = ap_array(item);
        if (!ap)
            return false;
        qzcap_wifi_ap &current = *main_ap(band);
        for (const cJSON *element = ap->child; element; element = element->next) {
            if (!valid_apidx(element))
                return false;
            for (const ap_member &member : ap_members)
                if (const char *given = json_text(element, member.key); differs(given, current.*member.text))
                    replace_text(current.*member.text, given);
            if (qzcap_wifi_ap_set_async(band.ap, main_interface, &current, 0, nullptr) < 0) {
                arvok_set_error(err_platform, "qzcap_wifi_ap_set_async failed");
                return false;
            }
        }
        return true;
    }

    // The platform's record has no const texts, but only reads them.
    static char *chosen(const char *given, char *current) {
        return given ? const_cast<char *>(given) : current;
    }

    qzcap_wifi_ap *main_ap(const wifi_band &band) const { return main_ap_[&band - bands].get(); }

    const cJSON *value_;
    wifi_ap_ptr main_ap_[std::size(bands)];
};

}  // namespace

json_ptr get_wifi() {
    if (update_wifi_info() != 0)
        return arvok_error_item(err_platform, "update_wifi_info failed");
    if (update_ap_info() != 0)
        return arvok_error_item(err_platform, "update_ap_info failed");
    json_ptr array(cJSON_CreateArray());
    for (const wifi_band &band : device_bands())
        if (const qzcap_wifiinfo *radio = radio_of(band))
            json_append(
                array.get(),
                json_object().add("radio", radio_item(band, *radio)).add("ap", ap_items(band)).take());
    return array;
}

void set_wifi(const cJSON *value) {
    if (!cJSON_IsArray(value))
        return arvok_set_error(err_invalid_parameter, "invalid wifi");
    wifi_setting(value).run();
}

}  // namespace arvok
