#include "arvok_client/bands.h"

#include <iterator>

#include "common/text.h"

namespace arvok {
namespace {

constexpr std::uint32_t connect_wireless = 1;

}  // namespace

const qzcap_wifi_ap *ap_of_host(const qzcap_laninfo &host) {
    if (host.connecttype != connect_wireless)
        return nullptr;
    const bool on_5g = g_ctx.dual_band && _strcmp(host.band, band_5g.word) == 0;
    for (const qzcap_wifi_ap *ap : aps_of(on_5g ? band_5g : band_2g))
        if (ap->index == host.port)
            return ap;
    return nullptr;
}

const char *bandwidth_text(std::uint32_t code) {
    return code < std::size(bandwidth_texts) ? bandwidth_texts[code] : "unknown";
}

}  // namespace arvok
