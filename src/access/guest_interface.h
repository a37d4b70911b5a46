#pragma once
/// The platform's interface of the guest network.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/records.h"

namespace arvok::access {

/// How a network is encrypted, in the platform's words.
struct encryption {
    const char *auth, *encrypt;
};

/// The number of an encryption in commands is its place here, counted from 1.
constexpr encryption encryptions[] = {
    {"open", "none"}, {"share", "none"}, {"wpa", "aestkip"}, {"wpa2", "aestkip"}, {"wpa2psk", "aestkip"},
};

/// That of the last for what is none of them.
int encryption_number(std::string_view auth);

struct guest_settings {
    std::string_view ssid, password;
    const encryption &cipher;
    bool enable;
    std::uint32_t hidden;
};

/// The 2.4 GHz interface of that index; null when there is none.
platform::access_point_record get_interface(int index);

/// Whether there is an interface of that index: `unknown` when the platform does not say.
enum class presence { there, gone, unknown };
presence find_interface(int index);

/// The guest interface as the platform lists it; index 0 for none.
struct listed_guest {
    int index = 0;
    bool enabled = false;
};
/// Nothing when the platform does not tell.
std::optional<listed_guest> find_guest_interface();

/// What came of a call: the interface's index, 0 for none, and the platform's text when it refused.
struct interface_outcome {
    int index;
    std::optional<std::string> error = {};
    bool is_new = false;
    platform::access_point_record before =
        {};  ///< as the interface was; null when it is new, or was remembered
};

/// Gives the settings to the guest interface of index `found`; without one, 0, to a new interface or, from a
/// platform that adds none, to a spare one. What is done to the interface `remembered` need not be undone; no
/// other is touched unless that can be.
interface_outcome set_guest_interface(const guest_settings &settings, int found, int remembered);

/// Undoes that, as far as the platform lets it.
void undo(const interface_outcome &done);

/// Deletes the interface or, where the platform keeps it, disables it. What went wrong, or nothing.
std::optional<std::string> delete_interface(int index);

/// Enables or disables an interface that is not so already. False when the platform refuses, or does not tell
/// of the interface although it may be there.
bool switch_interface(int index, bool on);

}  // namespace arvok::access
