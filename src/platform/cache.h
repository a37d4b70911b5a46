#pragma once
/// The device information cache: the last record of each kind that the platform handed out.
///
/// A record is fetched only when what there is has expired; everything expires with every gateway message, so
/// all answers to one message see the same records, and none is older than one message. Access points alone
/// are fetched by every refresh. A failed fetch keeps what there was and leaves it expired; of radios and
/// access points, which are fetched for all bands together, a failing second band drops the first.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/middleware.h"
#include "platform/records.h"

namespace arvok::platform {

/// A radio band.
struct band {
    const char *word;  ///< in messages
    int radio;         ///< code in calls about radios
    int access_point;  ///< code in calls about access-point interfaces
};

inline constexpr band bands[] = {{"2.4G", QZCAP_RADIO_2G, QZCAP_AP_2G}, {"5G", QZCAP_RADIO_5G, QZCAP_AP_5G}};

class cache {
  public:
    cache() = default;
    /// Releases the records in the order in which the platform is used to get them back.
    ~cache();
    cache(const cache &) = delete;
    cache &operator=(const cache &) = delete;

    /// Each makes a record current. False when it could not be had.
    bool refresh_device();
    bool refresh_wan();
    bool refresh_diagnostics();
    /// All bands together: when the second fails, the first is gone, too.
    bool refresh_radios();
    /// The same, and always fetched.
    bool refresh_access_points();

    /// What is current now is fetched again by the next refresh.
    void expire();
    void expire_device() { device_current_ = false; }
    void expire_wan() { wan_current_ = false; }

    /// Only after a first successful refresh; the agent waits for that before anything else.
    const qzcap_devinfo &device() const { return *device_; }
    const qzcap_diagnostics &diagnostics() const { return *diagnostics_; }  ///< as above
    /// Null until it could be had.
    const qzcap_waninfo *wan() const { return wan_.get(); }

    /// The device's own MAC, 12 upper-case digits where it is one; empty before there is a record.
    std::string_view own_mac() const { return view_of(device_ ? device_->mac : nullptr); }
    /// The vendor's name; empty before there is a record.
    std::string_view vendor() const { return view_of(device_ ? device_->vendor : nullptr); }
    /// The version of the platform's own software.
    std::string middleware_version() { return middleware_.version(vendor()); }
    bool is_router() const { return is_router_; }
    /// The bands that this device has.
    std::span<const band> device_bands() const { return {bands, dual_band_ ? std::size(bands) : 1u}; }
    /// Null when it is not there or the device lacks the band.
    const qzcap_wifiinfo *radio(const band &of) const;
    std::span<qzcap_wifi_ap *const> access_points(const band &of) const;
    /// The interface of a wireless host: that of its band whose index is the host's port; null for a wired
    /// host and when there is none. The 5 GHz interfaces serve hosts of exactly that band, the others all
    /// others.
    const qzcap_wifi_ap *access_point_of(const qzcap_laninfo &host) const;

  private:
    middleware middleware_;
    device_record device_;
    wan_record wan_;
    diagnostics_record diagnostics_;
    radio_record radios_[std::size(bands)];
    access_point_list access_points_[std::size(bands)];
    bool device_current_ = false, wan_current_ = false, diagnostics_current_ = false, radios_current_ = false;
    bool is_router_ = false;
    bool dual_band_ = false;
};

}  // namespace arvok::platform
