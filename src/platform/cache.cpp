#include "platform/cache.h"

#include <cstring>

#include "base/hex.h"
#include "base/log.h"

namespace arvok::platform {
namespace {

constexpr std::size_t first = 0, second = 1;  // band indices

// Keeps what there was when the fetch fails.
template <typename Record>
bool refresh(bool &current, Record &record, typename Record::pointer (*get)()) {
    if (current)
        return true;
    Record fetched(call(get));
    if (!fetched)
        return false;
    record = std::move(fetched);
    return current = true;
}

}  // namespace

cache::~cache() {
    device_.reset();
    wan_.reset();
    for (std::size_t at = 0; at < device_bands().size(); at++) {
        radios_[at].reset();
        access_points_[at] = {};
    }
    diagnostics_.reset();
}

bool cache::refresh_device() {
    if (device_current_)
        return true;
    if (!refresh(device_current_, device_, qzcap_get_devinfo))
        return false;
    if (device_->mac) {  // written over the old text: the normalised one is never longer
        const std::string mac = normalised_mac(device_->mac);
        std::memcpy(device_->mac, mac.c_str(), mac.size() + 1);
    }
    is_router_ = view_of(device_->mode) == "router";
    dual_band_ = view_of(device_->support_5g) == "yes";
    if (!dual_band_) {  // what comes back is another radio
        radios_[second].reset();
        access_points_[second] = {};
    }
    return true;
}

bool cache::refresh_wan() {
    return refresh(wan_current_, wan_, qzcap_get_waninfo);
}

bool cache::refresh_diagnostics() {
    return refresh(diagnostics_current_, diagnostics_, qzcap_diagnostics_get);
}

bool cache::refresh_radios() {
    if (radios_current_)
        return true;
    radio_record radio(call(qzcap_get_wifiinfo, QZCAP_RADIO_2G));
    if (!radio) {
        log_printf("[ERROR] update_wifi_info qzcap_get_wifiinfo 2.4G failed\n");
        return false;
    }
    radios_[first] = std::move(radio);
    if (dual_band_) {
        radio.reset(call(qzcap_get_wifiinfo, QZCAP_RADIO_5G));
        if (!radio) {
            radios_[first].reset();
            log_printf("[ERROR] update_wifi_info qzcap_get_wifiinfo 5G failed\n");
            return false;
        }
        radios_[second] = std::move(radio);
    }
    return radios_current_ = true;
}

bool cache::refresh_access_points() {
    auto fetched = fetch_list<access_point_list>(qzcap_wifi_ap_list, QZCAP_AP_2G);
    if (!fetched) {
        log_printf("[ERROR] update_ap_info qzcap_wifi_ap_list 2.4G failed\n");
        return false;
    }
    access_points_[first] = std::move(*fetched);
    if (!dual_band_)
        return true;
    fetched = fetch_list<access_point_list>(qzcap_wifi_ap_list, QZCAP_AP_5G);
    if (!fetched) {
        access_points_[first] = {};
        log_printf("[ERROR] update_ap_info qzcap_wifi_ap_list 5G failed\n");
        return false;
    }
    access_points_[second] = std::move(*fetched);
    return true;
}

void cache::expire() {
    device_current_ = wan_current_ = diagnostics_current_ = radios_current_ = false;
}

const qzcap_wifiinfo *cache::radio(const band &of) const {
    if (of.radio == QZCAP_RADIO_2G)
        return radios_[first].get();
    return dual_band_ ? radios_[second].get() : nullptr;
}

std::span<qzcap_wifi_ap *const> cache::access_points(const band &of) const {
    const bool is_first = of.radio == QZCAP_RADIO_2G;
    if (!is_first && !dual_band_)
        return {};
    const access_point_list &list = access_points_[is_first ? first : second];
    return {list.begin(), list.size()};
}

const qzcap_wifi_ap *cache::access_point_of(const qzcap_laninfo &host) const {
    if (host.connecttype != connected_wireless)
        return nullptr;
    const bool on_second = dual_band_ && view_of(host.band) == bands[second].word;
    for (const qzcap_wifi_ap *access_point : access_points(bands[on_second ? second : first]))
        if (access_point->index == host.port)
            return access_point;
    return nullptr;
}

}  // namespace arvok::platform
