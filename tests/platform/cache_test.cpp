// The agent's device information cache over the emulated platform: what it fetches, when, and what a failure
// leaves.

#include <dlfcn.h>

#include <functional>

#include "desk.h"
#include "platform/cache.h"

namespace arvok::test {

static std::string passed;  // the calls that went through here

#define PASS_ON(result, name, parameters, what, ...)                                         \
    extern "C" result name parameters {                                                      \
        (passed += ' ') += what;                                                             \
        return reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name))(__VA_ARGS__); \
    }
PASS_ON(int, qzcap_wifi_ap_list, (int band, unsigned int *count, qzcap_wifi_ap ***list), std::to_string(band),
        band, count, list)
PASS_ON(void, qzcap_free_wifi_aps, (unsigned int count, qzcap_wifi_ap **list), list[0]->ssid, count, list)
PASS_ON(void, qzcap_free_wifiinfo, (qzcap_wifiinfo * radio), std::to_string(radio->current_channel), radio)
PASS_ON(void, qzcap_free_devinfo, (qzcap_devinfo * device), "device", device)
PASS_ON(void, qzcap_free_waninfo, (qzcap_waninfo * wan), "wan", wan)
PASS_ON(void, qzcap_free_diagnostics, (qzcap_diagnostics * numbers), "diagnostics", numbers)

namespace {

using platform::bands;
using platform::cache;

class Cache : public Desk {
  protected:
    // The platform calls since the last look, as "name" or "name(band)".
    std::string calls() {
        const json_ptr answer = emulator("calls", R"({"clear":true})");
        std::string names;
        cJSON *entry = nullptr;
        cJSON_ArrayForEach(entry, cJSON_GetObjectItem(answer.get(), "calls")) {
            const cJSON *band = at(entry, "args.band");
            names += (names.empty() ? "" : " ") + text_at(entry, "call") +
                     (band ? "(" + std::to_string(band->valueint) + ")" : "");
        }
        return names;
    }
    std::string refresh(std::initializer_list<bool (cache::*)()> which, bool expected) {
        testing::internal::CaptureStderr();
        for (const auto each : which)
            EXPECT_EQ(std::invoke(each, cache_), expected);
        return testing::internal::GetCapturedStderr();
    }
    std::string_view ssid(std::size_t band, std::size_t at) const {
        return view_of(cache_.access_points(bands[band])[at]->ssid);
    }

    std::unique_ptr<cache> own_ = std::make_unique<cache>();
    cache &cache_ = *own_;
};

TEST_F(Cache, FetchesWhatHasExpired) {
    const struct {
        bool (cache::*refresh)();
        const char *fetches;
        void (cache::*expire)();
    } records[] = {
        {&cache::refresh_device, "qzcap_get_devinfo", &cache::expire_device},
        {&cache::refresh_wan, "qzcap_get_waninfo", &cache::expire_wan},
        {&cache::refresh_radios, "qzcap_get_wifiinfo(8) qzcap_get_wifiinfo(9)", &cache::expire},
        {&cache::refresh_diagnostics, "qzcap_diagnostics_get", &cache::expire},
        {&cache::refresh_access_points, "qzcap_wifi_ap_list(10) qzcap_wifi_ap_list(11)", nullptr},
    };
    calls();
    for (const auto &r : records) {
        for (const bool current : {false, true, false}) {
            EXPECT_TRUE(std::invoke(r.refresh, cache_));
            EXPECT_EQ(calls(), current && r.expire ? "" : r.fetches);
            if (current && r.expire)
                std::invoke(r.expire, cache_);
        }
    }
    EXPECT_EQ(cache_.own_mac(), "025A10000001");  // normalised as it came
    EXPECT_EQ(cache_.radio(bands[0])->current_channel, 6);
    EXPECT_EQ(cache_.radio(bands[1])->current_channel, 36);
    EXPECT_EQ(ssid(0, 0), "Home");
    EXPECT_EQ(ssid(1, 1), "Home-5G-2");
    // What there was goes before the next is fetched, and in this order in the end.
    passed.clear();
    EXPECT_TRUE(cache_.refresh_access_points());
    EXPECT_EQ(std::exchange(passed, ""), " 10 Home 11 Home-5G");
    own_.reset();
    EXPECT_EQ(passed, " device wan 6 Home 36 Home-5G diagnostics");
}

TEST_F(Cache, TheDeviceRecordDecidesModeAndBands) {
    const struct {
        std::string mode, support_5g;
        bool is_router;
        std::size_t count;
    } devices[] = {{"router", "yes", true, 2},
                   {"bridge", "yes", false, 2},
                   {"Router", "YES", false, 1},
                   {"router", "no", true, 1}};
    for (const auto &d : devices) {
        patch(R"({"devinfo":{"mac":null,"mode":")" + d.mode + R"(","support_5g":")" + d.support_5g + "\"}}");
        cache_.expire();
        ASSERT_TRUE(cache_.refresh_device());
        EXPECT_EQ(cache_.own_mac(), "");
        EXPECT_EQ(cache_.is_router(), d.is_router) << d.mode;
        EXPECT_EQ(cache_.device_bands().size(), d.count) << d.support_5g;
    }
    // The other band is neither asked for nor told.
    calls();
    EXPECT_TRUE(cache_.refresh_radios() && cache_.refresh_access_points());
    EXPECT_EQ(calls(), "qzcap_get_wifiinfo(8) qzcap_wifi_ap_list(10)");
    EXPECT_EQ(cache_.radio(bands[1]), nullptr);
    EXPECT_TRUE(cache_.access_points(bands[1]).empty());
}

TEST_F(Cache, ARadioThatComesBackIsNotToldFromWhatItWas) {
    const auto support_5g = [this](const char *word) {
        patch(R"({"devinfo":{"support_5g":")" + std::string(word) + "\"}}");
        cache_.expire();
        return cache_.refresh_device();
    };
    ASSERT_TRUE(cache_.refresh_device() && cache_.refresh_radios() && cache_.refresh_access_points());
    ASSERT_TRUE(cache_.radio(bands[1]) && !cache_.access_points(bands[1]).empty());
    ASSERT_TRUE(support_5g("no"));
    patch(R"({"wifiinfo":{"5G":null},"wifi_ap":{"5G":null}})");
    ASSERT_TRUE(support_5g("yes"));
    refresh({&cache::refresh_radios, &cache::refresh_access_points}, false);
    EXPECT_EQ(cache_.radio(bands[1]), nullptr);
    EXPECT_TRUE(cache_.access_points(bands[1]).empty());
}

TEST_F(Cache, AFailedFetchKeepsWhatThereWasAndStaysExpired) {
    const auto all = {&cache::refresh_device, &cache::refresh_wan, &cache::refresh_radios,
                      &cache::refresh_access_points, &cache::refresh_diagnostics};
    refresh(all, true);
    cache_.expire();
    for (const char *function : {"qzcap_get_devinfo", "qzcap_get_waninfo", "qzcap_get_wifiinfo",
                                 "qzcap_wifi_ap_list", "qzcap_diagnostics_get"})
        fail_next(function, "on demand");
    EXPECT_EQ(refresh(all, false),  // the others fail silently
              "[ERROR] update_wifi_info qzcap_get_wifiinfo 2.4G failed\n"
              "[ERROR] update_ap_info qzcap_wifi_ap_list 2.4G failed\n");
    EXPECT_EQ(cache_.own_mac(), "025A10000001");
    EXPECT_TRUE(cache_.wan() && cache_.radio(bands[0]) && cache_.radio(bands[1]));
    EXPECT_EQ(ssid(0, 0), "Home");
    calls();
    refresh(all, true);
    EXPECT_EQ(calls(),
              "qzcap_get_devinfo qzcap_get_waninfo qzcap_get_wifiinfo(8) qzcap_get_wifiinfo(9) "
              "qzcap_wifi_ap_list(10) qzcap_wifi_ap_list(11) qzcap_diagnostics_get");

    // The bands are told together or not at all.
    cache_.expire();
    patch(R"({"wifiinfo":{"5G":null},"wifi_ap":{"5G":null}})");
    ASSERT_TRUE(cache_.refresh_device());
    EXPECT_EQ(refresh({&cache::refresh_radios, &cache::refresh_access_points}, false),
              "[ERROR] update_wifi_info qzcap_get_wifiinfo 5G failed\n"
              "[ERROR] update_ap_info qzcap_wifi_ap_list 5G failed\n");
    EXPECT_EQ(cache_.radio(bands[0]), nullptr);
    EXPECT_TRUE(cache_.access_points(bands[0]).empty());
    EXPECT_EQ(cache_.access_points(bands[1]).size(), 2u);  // what there was
}

}  // namespace
}  // namespace arvok::test
