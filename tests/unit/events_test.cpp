// The platform's notifications, handed to the agent's callbacks: what shows in no message.

#include "arvok/platform_events.h"
#include "peer_fixture.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

class Events : public Peer {
  protected:
    Events() : Peer(32768, 8) {}

    void SetUp() override {
        Peer::SetUp();
        subscribe_platform_events();  // there is no bus here, but the callbacks are in their places
    }
    int notify(std::size_t subscriber, const char *method, const std::string &text) {
        struct blob_buf buf {};
        blob_buf_init(&buf, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf, text.c_str()));
        const int result = g_ctx.subscribers[subscriber].cb(nullptr, nullptr, nullptr, method, buf.head);
        blob_buf_free(&buf);
        return result;
    }
    std::string new_devices() {
        std::string macs;
        for (const new_device &device : g_ctx.new_devices)
            macs += std::string(macs.empty() ? "" : " ") + device.mac;
        return macs;
    }
};

TEST_F(Events, NewHostsAreListedAndArmTheRules) {
    EXPECT_EQ(notify(0, "newdevice", R"({"mac":"aa"})"), 0);
    const auto armed_anew = [] {
        const int left = uloop_timeout_remaining(&g_ctx.extcc.parent_timer);
        return left > 100 && left <= 200;
    };
    EXPECT_TRUE(armed_anew());
    uloop_timeout_set(&g_ctx.extcc.parent_timer, 5);
    notify(0, "newdevice", R"({"mac":"BB"})");
    EXPECT_TRUE(armed_anew());
    notify(0, "newdevice", R"({"mac":"aa"})");
    notify(0, "newdevice", R"({"mac":7})");
    notify(0, "newdevice", R"({"mac":"0123456789012345678901234567890123456789"})");
    EXPECT_EQ(new_devices(), "0123456789012345678901234567890 aa BB aa");

    uloop_timeout_cancel(&g_ctx.extcc.parent_timer);
    for (const char *stays : {R"({"mac":"aa","active":1})", R"({"mac":"aa"})", R"({"mac":"aa","active":"0"})",
                              R"({"mac":"cc","active":0})", R"({"active":0})"})
        notify(0, "devicestatus", stays);
    EXPECT_EQ(new_devices(), "0123456789012345678901234567890 aa BB aa");
    notify(0, "devicestatus", R"({"mac":"AA","active":0})");
    notify(0, "devicestatus", R"({"mac":"bb","active":0})");
    EXPECT_EQ(new_devices(), "0123456789012345678901234567890 aa");
    notify(0, "something", R"({"mac":"aa","active":0})");
    EXPECT_EQ(new_devices(), "0123456789012345678901234567890 aa");
    EXPECT_FALSE(g_ctx.extcc.parent_timer.pending);
    for (std::size_t i = 0; i < 2 * new_devices_max; i++)
        notify(0, "newdevice", R"({"mac":"dd"})");
    EXPECT_EQ(g_ctx.new_devices.size(), new_devices_max);
}

TEST_F(Events, EachSaysItsNameAndTakesNoMissingMessage) {
    const char *names[] = {"dev_event_cb",     "wan_event_cb", "wifi_event_cb",
                           "roaming_event_cb", "map_event_cb", "vsie_event_cb"};
    for (std::size_t i = 0; i < event_subscribers; i++) {
        log();
        EXPECT_EQ(g_ctx.subscribers[i].cb(nullptr, nullptr, nullptr, "any", nullptr), -1);
        EXPECT_EQ(log(), "");
        EXPECT_EQ(notify(i, "any", R"({"x":1})"), 0);
        EXPECT_TRUE(log().ends_with(std::string("[DEBUG] ") + names[i] + ": method any, json: {\"x\":1}\n"))
            << names[i];
    }
}

}  // namespace
}  // namespace arvok
