/// The platform's band codes and where the document keeps what belongs to a band.
#ifndef ARVOK_QZCAPD_BANDS_H
#define ARVOK_QZCAPD_BANDS_H

#include "json.h"

namespace arvok::qzcapd {

/// The codes of one family of calls for 2.4 GHz and 5 GHz.
struct BandCodes {
    int band_2g;
    int band_5g;
};

inline constexpr BandCodes radio_codes{8, 9};
inline constexpr BandCodes ap_codes{10, 11};

/// The value of the document's member `name` for the band argument; null when the code is of another family
/// or the device lacks the band.
cJSON *of_band(cJSON *state, const char *name, const cJSON *args, BandCodes codes);

}  // namespace arvok::qzcapd

#endif
