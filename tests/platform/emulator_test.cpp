// The desk's handles on the emulated device: patches and notifications, the journal, failures on order, state
// files.
#include "desk.h"

namespace arvok::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Emulator : public Desk {
  protected:
    /// What a subscriber of the numbered object hears while `act` runs, up to a marker sent last.
    std::vector<std::string> heard(int object, const std::function<void()> &act) {
        Listener listener;
        EXPECT_EQ(qzcap_ubus_subscribe(&listener, qzcap_get_objid_by_id(object)), 0);
        act();
        emulator("notify", R"({"object":)" + std::to_string(object) + R"(,"method":"marker","message":{}})");
        EXPECT_TRUE(
            run_until([&] { return !listener.heard.empty() && listener.heard.back() == "marker {}"; }));
        EXPECT_EQ(qzcap_ubus_unsubscribe(&listener, qzcap_get_objid_by_id(object)), 0);
        listener.heard.pop_back();
        return listener.heard;
    }
};

TEST_F(Emulator, ChangesAreAnnouncedWhoeverMakesThem) {
    struct Case {
        const char *patch;
        int object;
        std::vector<std::string> heard;
    };
    const Case cases[] = {
        {R"({"laninfo":{"02C0FFEE0005":{"active":1}}})",
         QZCAP_OBJ_LANINFO,
         {R"(devicestatus {"mac":"02C0FFEE0005","active":1})"}},
        {R"({"laninfo":{"02C0FFEE0005":{"active":1,"rssi":-50}}})", QZCAP_OBJ_LANINFO, {}},
        {R"({"laninfo":{"02C0FFEE0005":{"active":0},"02C0FFEE0001":{"active":0}}})",
         QZCAP_OBJ_LANINFO,
         {R"(devicestatus {"mac":"02C0FFEE0001","active":0})",
          R"(devicestatus {"mac":"02C0FFEE0005","active":0})"}},
        {R"({"laninfo":{"02:00:00:00:00:99":{"index":9,"active":1}}})",
         QZCAP_OBJ_LANINFO,
         {R"(newdevice {"mac":"02:00:00:00:00:99","active":1})",
          R"(devicestatus {"mac":"02:00:00:00:00:99","active":1})"}},
        {R"({"laninfo":{"02:00:00:00:00:99":null}})",
         QZCAP_OBJ_LANINFO,
         {R"(devicestatus {"mac":"02:00:00:00:00:99","active":0})"}},
        {R"({"waninfo":{"status":"down"}})",
         QZCAP_OBJ_WAN,
         {R"(wanstatus {"status":"down","ipaddr":"192.168.1.2"})"}},
        {R"({"waninfo":{"ipaddr":"192.168.1.3"}})", QZCAP_OBJ_WAN, {R"(wanstatus {"ipaddr":"192.168.1.3"})"}},
        {R"({"waninfo":{"uploadspeed":"9"}})", QZCAP_OBJ_WAN, {}},
        {R"({"wifi_switch":{"arvoksync":"off"}})", QZCAP_OBJ_WIFI, {R"(arvoksync {"arvoksync":"off"})"}},
        {R"({"mesh":{"role":"agent"}})", QZCAP_OBJ_MESH, {R"(mode {"mode":"agent"})"}},
    };
    for (const Case &item : cases) {
        EXPECT_EQ(heard(item.object, [&] { patch(item.patch); }), item.heard) << item.patch;
    }
    EXPECT_THAT(heard(QZCAP_OBJ_MESH, [] { qzcap_set_mesh_role("controller", nullptr); }),
                ElementsAre(R"(mode {"mode":"controller"})"));
    EXPECT_THAT(heard(QZCAP_OBJ_WIFI, [&] { call("qzcapd.wifi", "set", R"({"arvoksync":"on"})"); }),
                ElementsAre(R"(arvoksync {"arvoksync":"on"})"));
    EXPECT_THAT(heard(QZCAP_OBJ_LANINFO,
                      [] {
                          const char *const station[] = {"02C0FFEE0004"};
                          qzcap_wifi_deassociation(station, 1, nullptr);
                      }),
                ElementsAre(R"(devicestatus {"mac":"02C0FFEE0004","active":0})"));
    EXPECT_THAT(heard(QZCAP_OBJ_ROAMING,
                      [] {
                          qzcap_rssi_query query{const_cast<char *>("02c0ffee0002"), nullptr, 0, 0};
                          qzcap_start_rssi_query(&query, nullptr);
                      }),
                ElementsAre(R"(aprssi {"mac":"02C0FFEE0002","rssi":-48})"));
    EXPECT_THAT(heard(QZCAP_OBJ_ROAMING,
                      [] {
                          qzcap_bsstransition move{const_cast<char *>("02c0ffee0002"),
                                                   const_cast<char *>("02:5a:10:00:01:02"), 6, 0};
                          EXPECT_EQ(qzcap_bss_transition(&move, nullptr), 0);
                          move.bssid = const_cast<char *>("02:5a:10:00:09:02");
                          EXPECT_EQ(qzcap_bss_transition(&move, nullptr), -1);
                      }),
                ElementsAre(R"(roamingreport {"roamingreport":[{"mac":"02C0FFEE0002","connecttime":3600,)"
                            R"("rssi":-48,"channel":6}]})"));
    EXPECT_THAT(
        heard(QZCAP_OBJ_VSIE,
              [&] { emulator("notify", R"({"object":30,"method":"vsie","message":{"vsie":[221,5]}})"); }),
        ElementsAre(R"(vsie {"vsie":[221,5]})"));
}

TEST_F(Emulator, NewHostsAreNumbered) {
    patch(R"({"laninfo":{"02:00:00:00:00:98":{}}})");
    EXPECT_EQ(number_at(state().get(), "laninfo.02:00:00:00:00:98.index"), 7);
    stop_platform();
    start_platform(
        file("numbered.json", R"({"laninfo":{"02:00:00:00:00:01":{},"02:00:00:00:00:02":{"index":4}}})"));
    EXPECT_EQ(number_at(state().get(), "laninfo.02:00:00:00:00:01.index"), 5);
}

TEST_F(Emulator, JournalHoldsEveryCallWithItsArguments) {
    Listener listener;
    ASSERT_EQ(qzcap_ubus_subscribe(&listener, qzcap_get_objid_by_name("qzcapd.emulator")), 0);
    qzcap_reboot();
    qzcap_wifi_ap ap{};
    ap.ssid = const_cast<char *>("x");
    fail_next("qzcap_wifi_ap_set", "no");
    qzcap_wifi_ap_set(10, 1, &ap, nullptr);
    qzcap_set_led_switch("green", nullptr);
    const std::string entries[] = {
        R"({"call":"qzcap_reboot","args":{}})",
        R"({"call":"qzcap_wifi_ap_set","args":{"band":10,"index":1,"record":{"hidden":0,"ssid":"x","guest":0}}})",
        R"({"call":"qzcap_set_led_switch","args":{"status":"green"}})"};
    const std::string all = R"({"calls":[)" + entries[0] + "," + entries[1] + "," + entries[2] + "]}";
    EXPECT_EQ(print(emulator("calls").get()), all);
    EXPECT_EQ(print(emulator("calls", R"({"clear":true})").get()), all);
    EXPECT_EQ(print(emulator("calls").get()), R"({"calls":[]})");
    EXPECT_TRUE(run_until([&] { return listener.heard.size() >= 3; }));
    EXPECT_THAT(listener.heard,
                ElementsAre("call " + entries[0], "call " + entries[1], "call " + entries[2]));
    qzcap_ubus_unsubscribe(&listener, qzcap_get_objid_by_name("qzcapd.emulator"));
}

TEST_F(Emulator, JournalForgetsTheOldest) {
    qzcap_reboot();
    qzcap_wifi_channelscan(nullptr);
    for (int i = 0; i < 1999; ++i) {
        qzcap_free(qzcap_get_led_switch());
    }
    const json_ptr answer = emulator("calls");
    const cJSON *calls = at(answer.get(), "calls");
    EXPECT_EQ(cJSON_GetArraySize(calls), 2000);
    EXPECT_EQ(text_at(cJSON_GetArrayItem(calls, 0), "call"), "qzcap_wifi_channelscan");
    EXPECT_EQ(number_at(answer.get(), "left_out"), 1);
}

TEST_F(Emulator, FailuresLastAsOftenAsOrdered) {
    emulator("fail", R"({"call":"qzcap_get_mesh","times":2})");
    for (const bool good : {false, false, true}) {
        qzcap_mesh *mesh = qzcap_get_mesh();
        EXPECT_EQ(mesh != nullptr, good);
        qzcap_free_mesh(mesh);
    }
    emulator("fail", R"({"call":"qzcap_get_mesh","times":5})");
    emulator("fail", R"({"call":"qzcap_get_mesh","times":0})");
    qzcap_mesh *mesh = qzcap_get_mesh();
    EXPECT_NE(mesh, nullptr) << "times 0 must withdraw the order";
    qzcap_free_mesh(mesh);
}

TEST_F(Emulator, BadRequestsGetAReasonAndChangeNothing) {
    struct Case {
        const char *method;
        const char *message;
        int status;
        const char *reason;
    };
    const Case cases[] = {
        {"patch", R"({"patch":[1]})", UBUS_STATUS_INVALID_ARGUMENT, "patch: must be an object"},
        {"patch", R"({"patch":{"waninof":{}}})", UBUS_STATUS_INVALID_ARGUMENT, "waninof: no such member"},
        {"patch", R"({"patch":{"laninfo":{"02C0FFEE0001":{"rssi":"-50"}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "laninfo.02C0FFEE0001.rssi: must be a signed 32-bit number"},
        {"fail", R"({"call":"qzcap_fly"})", UBUS_STATUS_INVALID_ARGUMENT,
         "call: no such function: qzcap_fly"},
        {"fail", R"({"call":"qzcap_reset","mode":"slow"})", UBUS_STATUS_INVALID_ARGUMENT,
         "mode: must be error, timeout, empty or blank"},
        {"notify", R"({"object":8,"method":"x","message":{}})", UBUS_STATUS_NOT_FOUND,
         "object: no such platform object"},
        {"app", R"({"message":{}})", UBUS_STATUS_NOT_FOUND, "qzapp.arvokclt is not on the bus"},
    };
    const std::string before = print(state().get());
    for (const Case &item : cases) {
        int status = 0;
        const json_ptr answer = call("qzcapd.emulator", item.method, item.message, &status);
        EXPECT_EQ(status, item.status) << item.message;
        EXPECT_EQ(text_at(answer.get(), "failreason"), item.reason) << item.message;
    }
    EXPECT_EQ(print(state().get()), before);
}

TEST_F(Emulator, UnusableStateFilesAreRefused) {
    struct Case {
        const char *content;
        const char *complaint;
    };
    const Case cases[] = {
        {"{\n\"devinfo\": {\n,}}", "not JSON, line 3"},
        {R"({"devinfo":{"mac":7}})", "devinfo.mac: must be a text"},
    };
    for (const Case &item : cases) {
        Process daemon({QZCAPD, "--state", file("state.json", item.content), "-s", socket()});
        EXPECT_EQ(daemon.wait(), 1) << item.content;
        EXPECT_THAT(daemon.output(), HasSubstr(std::string("state.json: ") + item.complaint)) << item.content;
    }
    Process missing({QZCAPD, "--state", "/nowhere/state.json", "-s", socket()});
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_THAT(missing.output(), HasSubstr("/nowhere/state.json: cannot be read"));
}

}  // namespace
}  // namespace arvok::test
