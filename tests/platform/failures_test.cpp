// Every call of the library fails when the platform does, tells why, and leaves nothing behind.
#include <functional>
#include <set>

#include "calls.h"
#include "desk.h"

namespace arvok::test {
namespace {

/// A call that succeeds on the default home, and whether it did. `error` is null for calls without an error
/// text.
struct Probe {
    const char *function;
    std::function<bool(char **error)> succeeds;
    bool has_error;
};

template <typename T>
bool got(T *record, void (*release)(T *)) {
    const bool good = record != nullptr;
    release(record);
    return good;
}

template <typename T>
bool got_list(int (*list)(unsigned int *, T ***), void (*release)(unsigned int, T **)) {
    unsigned int count = 77;
    T **records = nullptr;
    if (list(&count, &records) < 0) {
        EXPECT_EQ(count, 77U) << "a failure must leave the count";
        EXPECT_EQ(records, nullptr) << "a failure must leave the list";
        return false;
    }
    release(count, records);
    return true;
}

char *text(const char *literal) {
    return const_cast<char *>(literal);
}

const std::vector<Probe> &probes() {
    static const char *const station[] = {"02C0FFEE0002"};
    static qzcap_iptv iptv{text("no"), 0, nullptr};
    static qzcap_serverinfo server{text("a:1"), nullptr, text(""), text(""), 0, nullptr};
    static qzcap_laninfo host{};
    static qzcap_wifiinfo radio{};
    static qzcap_wifi_ap ap{};
    static qzcap_wifi_timer timer{0, text("1"), text("06:00"), text("yes")};
    static qzcap_rssi_query query{text("02C0FFEE0002"), text("5G"), 36, 100};
    static qzcap_bsstransition move{text("02C0FFEE0002"), text("02:5A:10:00:01:01"), 6, 0};
    static qzcap_roaming roaming{text("no"), 0, 0, 0, 0};
    static unsigned char data[] = {1};
    static qzcap_vsie_beacontx beacon{text("x"), 1, 1, data, 1};
    static qzcap_vsie_proberesp probe{text("02:00:00:00:00:01"), 0, data, 1};
    // In an order in which each succeeds: added before it is deleted, connected before it is disconnected.
    static const std::vector<Probe> all{
        {"qzcap_get_devinfo", [](char **) { return got(qzcap_get_devinfo(), qzcap_free_devinfo); }, false},
        {"qzcap_diagnostics_get",
         [](char **) { return got(qzcap_diagnostics_get(), qzcap_free_diagnostics); }, false},
        {"qzcap_diagnostics_netstat",
         [](char **) { return got(qzcap_diagnostics_netstat(), qzcap_free_netstatinfo); }, false},
        {"qzcap_get_terminalnum",
         [](char **) { return got(qzcap_get_terminalnum(), qzcap_free_terminalnum); }, false},
        {"qzcap_get_led_switch", [](char **) { return text_ptr(qzcap_get_led_switch()) != nullptr; }, false},
        {"qzcap_set_led_switch", [](char **e) { return qzcap_set_led_switch("off", e) == 0; }, true},
        {"qzcap_set_iptv", [](char **e) { return qzcap_set_iptv(&iptv, e) == 0; }, true},
        {"qzcap_set_workmode", [](char **e) { return qzcap_set_workmode("bridge", e) == 0; }, true},
        {"qzcap_reboot", [](char **) { return qzcap_reboot() == 0; }, false},
        {"qzcap_upgrade", [](char **e) { return qzcap_upgrade("http://x/y", 3000000000U, "c", e) == 0; },
         true},
        {"qzcap_get_serverinfo", [](char **) { return got(qzcap_get_serverinfo(), qzcap_free_serverinfo); },
         false},
        {"qzcap_set_serverinfo", [](char **e) { return qzcap_set_serverinfo(&server, e) == 0; }, true},
        {"qzcap_get_waninfo", [](char **) { return got(qzcap_get_waninfo(), qzcap_free_waninfo); }, false},
        {"qzcap_list_laninfo", [](char **) { return got_list(qzcap_list_laninfo, qzcap_free_laninfos); },
         false},
        {"qzcap_set_laninfo", [](char **e) { return qzcap_set_laninfo(1, &host, e) == 0; }, true},
        {"qzcap_set_blacklist", [](char **e) { return qzcap_set_blacklist("yes", station, 1, e) == 0; },
         true},
        {"qzcap_get_wifi_switch",
         [](char **) { return got(qzcap_get_wifi_switch(), qzcap_free_wifi_switch); }, false},
        {"qzcap_get_wifiinfo", [](char **) { return got(qzcap_get_wifiinfo(8), qzcap_free_wifiinfo); },
         false},
        {"qzcap_set_wifiinfo_async", [](char **) { return qzcap_set_wifiinfo_async(9, &radio, 0) == 0; },
         false},
        {"qzcap_wifi_ap_list",
         [](char **) {
             return got_list<qzcap_wifi_ap>(
                 [](auto count, auto list) { return qzcap_wifi_ap_list(10, count, list); },
                 qzcap_free_wifi_aps);
         },
         false},
        {"qzcap_wifi_ap_get", [](char **) { return got(qzcap_wifi_ap_get(11, 1), qzcap_free_wifi_ap); },
         false},
        {"qzcap_wifi_ap_set", [](char **e) { return qzcap_wifi_ap_set(10, 1, &ap, e) == 0; }, true},
        {"qzcap_wifi_ap_set_async", [](char **e) { return qzcap_wifi_ap_set_async(10, 1, &ap, 0, e) == 0; },
         true},
        {"qzcap_wifi_ap_add", [](char **e) { return qzcap_wifi_ap_add(10, &ap, e) >= 1; }, true},
        {"qzcap_wifi_ap_delete", [](char **e) { return qzcap_wifi_ap_delete(10, 4, e) == 0; }, true},
        {"qzcap_wifi_ap_stats",
         [](char **) { return got(qzcap_wifi_ap_stats(10, 1), qzcap_free_wifi_apstat); }, false},
        {"qzcap_wifi_timer_list",
         [](char **) { return got_list(qzcap_wifi_timer_list, qzcap_free_wifi_timers); }, false},
        {"qzcap_wifi_timer_add", [](char **e) { return qzcap_wifi_timer_add(&timer, e) == 0; }, true},
        {"qzcap_wifi_timer_set", [](char **e) { return qzcap_wifi_timer_set(3, &timer, e) == 0; }, true},
        {"qzcap_wifi_timer_delete", [](char **e) { return qzcap_wifi_timer_delete(3, e) == 0; }, true},
        {"qzcap_get_neighbourinfo",
         [](char **) { return got_list(qzcap_get_neighbourinfo, qzcap_free_neighbourinfo); }, false},
        {"qzcap_get_channel_score",
         [](char **) {
             return got_list<qzcap_channel_score>(
                 [](auto count, auto list) { return qzcap_get_channel_score(8, count, list); },
                 qzcap_free_channel_score);
         },
         false},
        {"qzcap_wifi_channelscan", [](char **e) { return qzcap_wifi_channelscan(e) == 0; }, true},
        {"qzcap_get_mesh", [](char **) { return got(qzcap_get_mesh(), qzcap_free_mesh); }, false},
        {"qzcap_mesh_backhaulbss",
         [](char **) { return got(qzcap_mesh_backhaulbss(), qzcap_free_backhaulbss); }, false},
        {"qzcap_mesh_topo", [](char **) { return text_ptr(qzcap_mesh_topo(0)) != nullptr; }, false},
        {"qzcap_set_mesh_role", [](char **e) { return qzcap_set_mesh_role("auto", e) == 0; }, true},
        {"qzcap_get_mesh_roaming", [](char **) { return got(qzcap_get_mesh_roaming(), qzcap_free_roaming); },
         false},
        {"qzcap_set_mesh_roaming", [](char **e) { return qzcap_set_mesh_roaming(&roaming, e) == 0; }, true},
        {"qzcap_get_roaming", [](char **) { return got(qzcap_get_roaming(), qzcap_free_roaming); }, false},
        {"qzcap_set_roaming", [](char **e) { return qzcap_set_roaming(&roaming, e) == 0; }, true},
        {"qzcap_start_rssi_query", [](char **e) { return qzcap_start_rssi_query(&query, e) == 0; }, true},
        {"qzcap_bss_transition", [](char **e) { return qzcap_bss_transition(&move, e) == 0; }, true},
        {"qzcap_wifi_deassociation", [](char **e) { return qzcap_wifi_deassociation(station, 1, e) == 0; },
         true},
        {"qzcap_add_vsie_beacontx", [](char **e) { return qzcap_add_vsie_beacontx(&beacon, e) == 0; }, true},
        {"qzcap_vsie_beacontx_action",
         [](char **e) { return qzcap_vsie_beacontx_action(0, "start", e) == 0; }, true},
        {"qzcap_delete_vsie_beacontx_by_name",
         [](char **e) { return qzcap_delete_vsie_beacontx_by_name("x", e) == 0; }, true},
        {"qzcap_add_vsie_proberesp", [](char **e) { return qzcap_add_vsie_proberesp(&probe, e) == 0; }, true},
        {"qzcap_run_app", [](char **e) { return qzcap_run_app(nullptr, "weather", e) == 0; }, true},
        {"qzcap_app_postmsg",
         [](char **e) { return text_ptr(qzcap_app_postmsg(nullptr, "weather", "{}", e)) != nullptr; }, true},
        {"qzcap_stop_app", [](char **e) { return qzcap_stop_app(nullptr, "weather", e) == 0; }, true},
        {"qzcap_restore_app", [](char **e) { return qzcap_restore_app(nullptr, "weather", e) == 0; }, true},
        {"qzcap_get_applist",
         [](char **) {
             return got_list<qzcap_app>(
                 [](auto count, auto list) { return qzcap_get_applist(nullptr, count, list); },
                 qzcap_free_applist);
         },
         false},
        {"qzcap_uninstall_app", [](char **e) { return qzcap_uninstall_app(nullptr, "weather", e) == 0; },
         true},
        {"qzcap_reset", [](char **) { return qzcap_reset() == 0; }, false},
    };
    return all;
}

class Failures : public Desk {
  protected:
    /// The call must fail; the text must say so.
    static void expect_failure(const Probe &probe, const testing::Matcher<std::string> &reason) {
        char *error = nullptr;
        EXPECT_FALSE(probe.succeeds(&error)) << probe.function;
        const text_ptr owner(error);
        if (probe.has_error) {
            ASSERT_NE(error, nullptr) << probe.function;
            EXPECT_THAT(error, reason) << probe.function;
        }
    }

    static void expect_success(const Probe &probe) {
        char *error = text("stale");
        EXPECT_TRUE(probe.succeeds(&error)) << probe.function << ": " << (error != nullptr ? error : "");
        EXPECT_TRUE(!probe.has_error || error == nullptr) << probe.function;
    }
};

TEST_F(Failures, EveryCallFailsOnDemandAndWorksAgain) {
    std::set<std::string> covered{"qzcap_set_wifi_switch", "qzcap_install_app"};  // no calls of this form
    for (const Probe &probe : probes()) {
        covered.insert(probe.function);
        fail_next(probe.function, "out of order");
        expect_failure(probe, "out of order");
        fail_next(probe.function, "", "empty");
        expect_failure(probe, testing::HasSubstr("no result in the answer"));
        expect_success(probe);
    }
    std::set<std::string> declared;
    for (const capi::Call &call : capi::calls) {
        declared.insert(call.function);
    }
    EXPECT_EQ(covered, declared);
}

TEST_F(Failures, SilenceEndsAfterTheTimeOut) {
    for (const char *function : {"qzcap_set_led_switch", "qzcap_get_devinfo"}) {
        fail_next(function, "", "timeout");
        for (const Probe &probe : probes()) {
            if (std::string(function) == probe.function) {
                expect_failure(probe, testing::HasSubstr("Request timed out"));
                expect_success(probe);
            }
        }
    }
}

TEST_F(Failures, BlankAnswersSucceedAndHoldNothing) {
    for (const char *function : {"qzcap_get_devinfo", "qzcap_list_laninfo", "qzcap_get_led_switch"}) {
        fail_next(function, "", "blank");
    }
    qzcap_devinfo *device = qzcap_get_devinfo();
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->mac, nullptr);
    EXPECT_EQ(device->lanports, nullptr);
    qzcap_free_devinfo(device);
    unsigned int count = 7;
    qzcap_laninfo **hosts = nullptr;
    EXPECT_EQ(qzcap_list_laninfo(&count, &hosts), 0);
    EXPECT_EQ(count, 0U);
    qzcap_free_laninfos(count, hosts);
    EXPECT_STREQ(text_ptr(qzcap_get_led_switch()).get(), "");
}

TEST_F(Failures, WithoutThePlatformEveryCallFailsAndItsReturnIsNoticed) {
    stop_platform();
    for (const Probe &probe : probes()) {
        expect_failure(probe, testing::HasSubstr("Not found"));
    }
    EXPECT_EQ(qzcap_get_objid_by_id(QZCAP_OBJ_WIFI), 0U);
    start_platform(HOME_STATE);
    for (const Probe &probe : probes()) {
        expect_success(probe);
    }
}

TEST_F(Failures, WithoutASessionEveryCallFails) {
    qzcap_ubus_done();
    for (const Probe &probe : probes()) {
        expect_failure(probe, "no bus session");
    }
    qzcap_ubus_start(0);
}

}  // namespace
}  // namespace arvok::test
