// The agent's device information cache over the emulated platform: what it fetches, when, and what a failure
// leaves.

#include "arvok/device_info.h"

#include <algorithm>

#include "context.h"
#include "desk.h"

namespace arvok::test {
namespace {

class Cache : public Desk {
  protected:
    void SetUp() override {
        g_ctx = {};
        Desk::SetUp();
    }
    void TearDown() override {
        release_device_info();
        g_ctx = {};
        Desk::TearDown();
    }
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
};

TEST_F(Cache, FlagsDecideWhatIsFetched) {
    struct {
        int (*update)();
        std::int32_t context::*valid;
        const char *fetches;
    } const records[] = {
        {update_dev_info, &context::devinfo_valid, "qzcap_get_devinfo"},
        {update_wan_info, &context::waninfo_valid, "qzcap_get_waninfo"},
        {update_wifi_info, &context::wifiinfo_valid, "qzcap_get_wifiinfo(8) qzcap_get_wifiinfo(9)"},
        {update_diag_info, &context::diag_valid, "qzcap_diagnostics_get"},
        {update_ap_info, nullptr, "qzcap_wifi_ap_list(10) qzcap_wifi_ap_list(11)"},
    };
    calls();
    for (const auto &r : records) {
        EXPECT_EQ(r.update(), 0);
        EXPECT_EQ(calls(), r.fetches);
        EXPECT_EQ(r.update(), 0);
        EXPECT_EQ(calls(), r.valid ? "" : r.fetches);
        if (!r.valid)
            continue;
        EXPECT_EQ(g_ctx.*r.valid, 1);
        invalidate_device_info();
        EXPECT_EQ(g_ctx.*r.valid, 0);
        EXPECT_EQ(r.update(), 0);
        EXPECT_EQ(calls(), r.fetches);
    }
    EXPECT_STREQ(g_ctx.devinfo->mac, "025A10000001");  // normalised as it came
    EXPECT_STREQ(g_ctx.waninfo->ipaddr, "192.168.1.2");
    EXPECT_EQ(g_ctx.wifiinfo_2g->current_channel, 6);
    EXPECT_EQ(g_ctx.wifiinfo_5g->current_channel, 36);
    EXPECT_EQ(g_ctx.diag->cputemp, 52u);
    ASSERT_EQ(g_ctx.aps_2g_cnt, 4u);
    ASSERT_EQ(g_ctx.aps_5g_cnt, 2u);
    EXPECT_STREQ(g_ctx.aps_2g.get()[0]->ssid, "Home");
    EXPECT_STREQ(g_ctx.aps_5g.get()[1]->ssid, "Home-5G-2");
}

TEST_F(Cache, TheDeviceRecordDecidesModeAndBands) {
    struct {
        const char *mode, *support_5g;
        int is_router, dual_band;
    } const devices[] = {
        {"router", "no", 1, 0}, {"bridge", "yes", 0, 1}, {"Router", "YES", 0, 0}, {"router", "yes", 1, 1}};
    for (const auto &d : devices) {
        patch(R"({"devinfo":{"mode":")" + std::string(d.mode) + R"(","support_5g":")" + d.support_5g +
              "\"}}");
        invalidate_device_info();
        ASSERT_EQ(update_dev_info(), 0);
        EXPECT_EQ(g_ctx.is_router, d.is_router) << d.mode;
        EXPECT_EQ(g_ctx.dual_band, d.dual_band) << d.support_5g;
    }
}

TEST_F(Cache, ASingleBandDeviceIsNeverAskedForTheOther) {
    patch(R"({"devinfo":{"support_5g":"no"}})");
    ASSERT_EQ(update_dev_info(), 0);
    calls();
    EXPECT_EQ(update_wifi_info(), 0);
    EXPECT_EQ(update_ap_info(), 0);
    EXPECT_EQ(calls(), "qzcap_get_wifiinfo(8) qzcap_wifi_ap_list(10)");
    EXPECT_EQ(g_ctx.wifiinfo_5g, nullptr);
    EXPECT_EQ(g_ctx.aps_5g, nullptr);
    EXPECT_EQ(g_ctx.aps_5g_cnt, 0u);
}

TEST_F(Cache, AFailedFetchKeepsWhatThereWas) {
    ASSERT_EQ(
        update_dev_info() + update_wan_info() + update_wifi_info() + update_ap_info() + update_diag_info(),
        0);
    invalidate_device_info();
    for (const char *function : {"qzcap_get_devinfo", "qzcap_get_waninfo", "qzcap_get_wifiinfo",
                                 "qzcap_wifi_ap_list", "qzcap_diagnostics_get"})
        fail_next(function, "on demand");
    testing::internal::CaptureStderr();
    for (auto update : {update_dev_info, update_wan_info, update_wifi_info, update_ap_info, update_diag_info})
        EXPECT_EQ(update(), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("[ERROR] update_wifi_info qzcap_get_wifiinfo 2.4G failed\n"), std::string::npos);
    EXPECT_NE(log.find("[ERROR] update_ap_info qzcap_wifi_ap_list 2.4G failed\n"), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);  // the others fail silently
    EXPECT_EQ(g_ctx.devinfo_valid + g_ctx.waninfo_valid + g_ctx.wifiinfo_valid + g_ctx.diag_valid, 0);
    EXPECT_TRUE(g_ctx.devinfo && g_ctx.waninfo && g_ctx.wifiinfo_2g && g_ctx.wifiinfo_5g && g_ctx.diag);
    EXPECT_EQ(g_ctx.aps_2g_cnt, 4u);
    EXPECT_STREQ(g_ctx.aps_2g.get()[0]->ssid, "Home");
}

// The bands are told together or not at all.
TEST_F(Cache, AFailureOfTheSecondBandEmptiesTheFirst) {
    ASSERT_EQ(update_dev_info() + update_wifi_info() + update_ap_info(), 0);
    invalidate_device_info();
    patch(R"({"wifiinfo":{"5G":null},"wifi_ap":{"5G":null}})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(update_wifi_info(), -1);
    EXPECT_EQ(update_ap_info(), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("[ERROR] update_wifi_info qzcap_get_wifiinfo 5G failed\n"), std::string::npos);
    EXPECT_NE(log.find("[ERROR] update_ap_info qzcap_wifi_ap_list 5G failed\n"), std::string::npos);
    EXPECT_EQ(g_ctx.wifiinfo_2g, nullptr);
    EXPECT_EQ(g_ctx.wifiinfo_valid, 0);
    EXPECT_EQ(g_ctx.aps_2g, nullptr);
    EXPECT_EQ(g_ctx.aps_2g_cnt, 0u);
    EXPECT_EQ(g_ctx.aps_5g_cnt, 2u);  // what there was
}

}  // namespace
}  // namespace arvok::test
