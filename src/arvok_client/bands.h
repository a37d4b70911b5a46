#pragma once
/// The radio bands: words of the protocol, codes of the platform, records of the cache.

#include <cstdint>
#include <span>

#include "context.h"

namespace arvok {

struct wifi_band {
    const char *word;  ///< on the gateway link
    int radio;         ///< code in calls about radios
    int ap;            ///< code in calls about access-point interfaces
};

inline constexpr wifi_band band_2g{"2.4G", QZCAP_RADIO_2G, QZCAP_AP_2G};
inline constexpr wifi_band band_5g{"5G", QZCAP_RADIO_5G, QZCAP_AP_5G};
inline constexpr wifi_band bands[] = {band_2g, band_5g};

/// The bands that this device has.
inline std::span<const wifi_band> device_bands() {
    return {bands, g_ctx.dual_band ? 2u : 1u};
}

/// The cached radio record of a band; null when it is empty or the device lacks the band.
inline const qzcap_wifiinfo *radio_of(const wifi_band &band) {
    if (band.radio == QZCAP_RADIO_2G)
        return g_ctx.wifiinfo_2g.get();
    return g_ctx.dual_band ? g_ctx.wifiinfo_5g.get() : nullptr;
}

/// The cached access-point interfaces of a band.
inline std::span<qzcap_wifi_ap *const> aps_of(const wifi_band &band) {
    if (band.ap == QZCAP_AP_2G)
        return {g_ctx.aps_2g.get(), g_ctx.aps_2g_cnt};
    return {g_ctx.aps_5g.get(), g_ctx.dual_band ? g_ctx.aps_5g_cnt : 0};
}

/// The interface of a wireless host: that of its band whose index is the host's port; null for a wired host
/// and when there is none. The 5 GHz interfaces serve hosts of exactly that band, the others all others.
const qzcap_wifi_ap *ap_of_host(const qzcap_laninfo &host);

/// The protocol's text of a bandwidth code; "unknown" for a code beyond the table.
const char *bandwidth_text(std::uint32_t code);

}  // namespace arvok
