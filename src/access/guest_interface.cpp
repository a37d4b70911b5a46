#include "access/guest_interface.h"

#include <iterator>

#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr std::size_t spare_interfaces_from = 2;  // the interfaces before have their own purpose

std::optional<platform::access_point_list> list_interfaces() {
    return platform::fetch_list<platform::access_point_list>(qzcap_wifi_ap_list, QZCAP_AP_2G);
}

bool set(const qzcap_wifi_ap &interface, platform::reason &why) {
    return platform::call(qzcap_wifi_ap_set, QZCAP_AP_2G, interface.index, &interface, why) == 0;
}

void fill(qzcap_wifi_ap &interface, const guest_settings &settings) {
    platform::replace_text(interface.enable, settings.enable ? "yes" : "no");
    platform::replace_text(interface.ssid, settings.ssid);
    platform::replace_text(interface.key, settings.password);
    platform::replace_text(interface.auth, settings.cipher.auth);
    platform::replace_text(interface.encrypt, settings.cipher.encrypt);
    interface.hidden = settings.hidden;
    interface.guest = 1;
}

interface_outcome use_spare_interface(const guest_settings &settings) {
    const auto interfaces = list_interfaces();
    for (std::size_t at = spare_interfaces_from; interfaces && at < interfaces->size(); at++) {
        qzcap_wifi_ap &spare = (*interfaces)[at];
        if (view_of(spare.enable) != "no" || spare.inuse != 0)
            continue;
        platform::access_point_record before = get_interface(static_cast<int>(spare.index));
        if (!before)
            return {0};
        fill(spare, settings);
        platform::reason why;
        if (!set(spare, why) && why.is_given())
            log_printf("_add_guest_wifi (%d): extcc wifi ap.%d set failed: %s\n", __LINE__,
                       static_cast<int>(spare.index), why.c_str());
        return {static_cast<int>(spare.index), {}, false, std::move(before)};
    }
    return {0};
}

interface_outcome add_guest_interface(const guest_settings &settings) {
    const platform::access_point_record interface(
        static_cast<qzcap_wifi_ap *>(qzcap_calloc(1, sizeof(qzcap_wifi_ap))));
    if (!interface) {
        log_printf("_add_guest_wifi (%d): extcc oom\n", __LINE__);
        return {0};
    }
    fill(*interface, settings);
    platform::reason why;
    const int index = platform::call(qzcap_wifi_ap_add, QZCAP_AP_2G, interface.get(), why);
    if (index >= 1 && !why.is_given())
        return {index, {}, true};
    log_printf("_add_guest_wifi (%d): extcc wifi ap add failed: %s, try find available ap\n", __LINE__,
               why.c_str());
    return use_spare_interface(settings);
}

}  // namespace

int encryption_number(std::string_view auth) {
    constexpr int count = static_cast<int>(std::size(encryptions));
    int number = 1;
    while (number < count && auth != encryptions[number - 1].auth)
        number++;
    return number;
}

platform::access_point_record get_interface(int index) {
    return platform::access_point_record(
        index > 0 ? platform::call(qzcap_wifi_ap_get, QZCAP_AP_2G, static_cast<std::uint32_t>(index))
                  : nullptr);
}

presence find_interface(int index) {
    const auto list = list_interfaces();
    if (!list)
        return presence::unknown;
    for (const qzcap_wifi_ap *interface : *list)
        if (static_cast<int>(interface->index) == index)
            return presence::there;
    return presence::gone;
}

std::optional<listed_guest> find_guest_interface() {
    const auto list = list_interfaces();
    if (!list)
        return std::nullopt;
    for (const qzcap_wifi_ap *interface : *list)
        if (interface->guest == 1)
            return listed_guest{static_cast<int>(interface->index), view_of(interface->enable) == "yes"};
    return listed_guest();
}

interface_outcome set_guest_interface(const guest_settings &settings, int found, int remembered) {
    if (found < 1)
        return add_guest_interface(settings);
    const platform::access_point_record interface = get_interface(found);
    platform::access_point_record before = get_interface(found == remembered ? 0 : found);
    if (!interface || (found != remembered && !before))
        return {0};
    fill(*interface, settings);
    platform::reason why;
    if (!set(*interface, why) && why.is_given())
        return {0, why.c_str()};
    return {static_cast<int>(interface->index), {}, false, std::move(before)};
}

void undo(const interface_outcome &done) {
    platform::reason why;
    if (done.before)
        set(*done.before, why);
    else if (done.is_new)
        delete_interface(done.index);
}

std::optional<std::string> delete_interface(int index) {
    if (platform::call(qzcap_wifi_ap_delete, QZCAP_AP_2G, static_cast<std::uint32_t>(index), nullptr) == 0)
        return std::nullopt;
    platform::reason why;
    const platform::access_point_record interface = get_interface(index);
    if (interface) {
        platform::replace_text(interface->enable, "no");
        if (set(*interface, why))
            return std::nullopt;
    }
    return why.is_given() ? why.c_str() : "guest delete/disable failed";
}

bool switch_interface(int index, bool on) {
    const platform::access_point_record interface = get_interface(index);
    if (!interface)
        return index < 1 || find_interface(index) == presence::gone;
    if (view_of(interface->enable) != (on ? "no" : "yes"))
        return true;
    platform::replace_text(interface->enable, on ? "yes" : "no");
    platform::reason why;
    return set(*interface, why);
}

}  // namespace arvok::access
