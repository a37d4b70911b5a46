#pragma once
/// The device information cache: the last record of each kind that the platform handed out, kept in g_ctx.
///
/// A record is fetched only while its validity flag is clear; the flags are cleared for every gateway
/// message, so all answers to one message see the same records, and none is older than one message. A failed
/// fetch keeps what there was and leaves the flag clear. All of this runs on the loop thread.

#include <cstdint>
#include <span>

#include "common/handle.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {

using qz_text = handle<char, &qzcap_free>;
using devinfo_ptr = handle<qzcap_devinfo, &qzcap_free_devinfo>;
using waninfo_ptr = handle<qzcap_waninfo, &qzcap_free_waninfo>;
using wifiinfo_ptr = handle<qzcap_wifiinfo, &qzcap_free_wifiinfo>;
using wifi_switch_ptr = handle<qzcap_wifi_switch, &qzcap_free_wifi_switch>;
using diagnostics_ptr = handle<qzcap_diagnostics, &qzcap_free_diagnostics>;
using wifi_ap_ptr = handle<qzcap_wifi_ap, &qzcap_free_wifi_ap>;
using mesh_ptr = handle<qzcap_mesh, &qzcap_free_mesh>;

/// Gives memory that was released back to the system, as far as the C library has a call for that.
void give_memory_back();

/// Lists are released with their length. A long one has taken much of a small box, which allocators like to
/// keep for the next: what was allocated meanwhile lies above it.
constexpr unsigned int long_list = 256;
template <auto Release>
struct release_list_with {
    unsigned int count = 0;
    template <typename T>
    void operator()(T *list) const {
        Release(count, list);
        if (count > long_list)
            give_memory_back();
    }
};
using wifi_aps_ptr = std::unique_ptr<qzcap_wifi_ap *, release_list_with<&qzcap_free_wifi_aps>>;
using laninfos_ptr = std::unique_ptr<qzcap_laninfo *, release_list_with<&qzcap_free_laninfos>>;

/// The refreshes. 0 when the record is current, also when nothing had to be fetched; -1 when it could not be
/// had.
int update_dev_info();
int update_wan_info();
/// Both bands together: when the 5 GHz record fails, the 2.4 GHz slot is empty too.
int update_wifi_info();
/// Always fetches; the bands as above.
int update_ap_info();
int update_diag_info();

/// Always fetches: the hosts that the platform knows; none is a success. False when they could not be listed.
bool list_hosts(laninfos_ptr &hosts);
/// The records of a list of hosts, an empty handle's included.
std::span<qzcap_laninfo *const> hosts_of(const laninfos_ptr &hosts);
/// The host of that MAC, in either case, borrowed from the list; null when there is none.
qzcap_laninfo *find_host(const laninfos_ptr &hosts, const char *mac);

/// Replaces a text of a platform record with a copy of `value`.
void replace_text(char *&text, const char *value);

/// The device's own MAC as the cached record has it, borrowed; null before there is a record.
const char *own_mac();

/// Clears the flags of the device, WAN, Wi-Fi and diagnostics records.
void invalidate_device_info();

/// Releases every record, in the order in which main ends. The second radio's only on a dual-band device.
void release_device_info();

/// The version text "TUL1.0_QZ_<vendor>_<architecture>_<application version>" in upper case, from the cached
/// device record and the platform's version command. Static buffer; valid until the next call.
const char *get_tul_version();

/// Runs a shell command and reads at most 32 bytes of its output into `buf`, which is not terminated here.
/// Returns the bytes read, or -1 when the command cannot be started.
int read_cmd_output(const char *command, char *buf);

/// Channel bandwidths as the protocol writes them; the platform's code is the position. "0" is automatic.
inline constexpr const char *bandwidth_texts[] = {"20", "40", "0", "80", "160", "80+80"};

/// The platform's code of a bandwidth text, or unknown_bandwidth.
int get_bandwidth_index(const char *text);
constexpr int unknown_bandwidth = 2222;

}  // namespace arvok
