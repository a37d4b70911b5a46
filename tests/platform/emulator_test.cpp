// The desk's handles on the emulated device: patches and notifications, the journal, failures on order, state
// files.
#include <signal.h>

#include "desk.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}

namespace arvok::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Emulator : public Desk {
  protected:
    /// What a subscriber of the numbered object hears while `act` runs, up to a marker sent last.
    std::vector<std::string> heard(int object, const std::function<void()> &act) {
        Listener listener;
        EXPECT_EQ(qzcap_ubus_subscribe(&listener.subscriber, qzcap_get_objid_by_id(object)), 0);
        act();
        emulator("notify", R"({"object":)" + std::to_string(object) + R"(,"method":"marker","message":{}})");
        EXPECT_TRUE(
            run_until([&] { return !listener.heard.empty() && listener.heard.back() == "marker {}"; }));
        EXPECT_EQ(qzcap_ubus_unsubscribe(&listener.subscriber, qzcap_get_objid_by_id(object)), 0);
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
                          qzcap_bsstransition move{const_cast<char *>("02c0ffee0002"), nullptr, 6, 0};
                          qzcap_bss_transition(&move, nullptr);
                      }),
                ElementsAre(R"(roamingreport {"roamingreport":[{"mac":"02C0FFEE0002","connecttime":3600,)"
                            R"("rssi":-48,"channel":36}]})"));
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

TEST_F(Emulator, SwitchesAreSetOverTheBus) {
    struct Case {
        const char *message;
        const char *answer;
    };
    const Case cases[] = {
        {R"({"wifiswitch":"off"})", R"({"result":0})"},
        {R"({"wpsswitch":"on"})", R"({"result":0})"},
        {R"({"arvoksync":"ON"})", R"({"result":-1,"failreason":"arvoksync: must be on or off"})"},
        {R"({"arvoksync":1})", R"({"result":-1,"failreason":"arvoksync: must be a text"})"},
        {R"({"ledswitch":"on"})", R"({"result":-1,"failreason":"ledswitch: no such argument"})"},
        {R"({})",
         R"({"result":-1,"failreason":"exactly one of wifiswitch, wpsswitch, arvoksync must be given"})"},
        {R"({"wifiswitch":"on","arvoksync":"off"})",
         R"({"result":-1,"failreason":"exactly one of wifiswitch, wpsswitch, arvoksync must be given"})"},
    };
    for (const Case &item : cases) {
        EXPECT_EQ(print(call("qzcapd.wifi", "set", item.message).get()), item.answer) << item.message;
    }
    EXPECT_EQ(print(at(state().get(), "wifi_switch")),
              R"({"wifiswitch":"off","wpsswitch":"on","arvoksync":"on"})");
}

TEST_F(Emulator, JournalHoldsEveryCallWithItsArguments) {
    Listener listener;
    ASSERT_EQ(qzcap_ubus_subscribe(&listener.subscriber, qzcap_get_objid_by_name("qzcapd.emulator")), 0);
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
    qzcap_ubus_unsubscribe(&listener.subscriber, qzcap_get_objid_by_name("qzcapd.emulator"));
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

    // What does not fit one message is left out too, and the newest stay readable.
    emulator("calls", R"({"clear":true})");
    const std::string mac(100000, 'm');
    const char *macs[] = {mac.c_str()};
    for (int i = 0; i < 15; ++i) {
        qzcap_wifi_deassociation(macs, 1, nullptr);
    }
    const json_ptr newest = emulator("calls", R"({"clear":true})");
    EXPECT_EQ(cJSON_GetArraySize(at(newest.get(), "calls")), 3);
    EXPECT_EQ(number_at(newest.get(), "left_out"), 12);
    EXPECT_EQ(cJSON_GetArraySize(at(emulator("calls").get(), "calls")), 0);
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
        {"patch", R"({})", UBUS_STATUS_INVALID_ARGUMENT, "patch: must be an object"},
        {"patch", R"({"patch":[1]})", UBUS_STATUS_INVALID_ARGUMENT, "patch: must be an object"},
        {"patch", R"({"patch":{"waninof":{}}})", UBUS_STATUS_INVALID_ARGUMENT, "waninof: no such member"},
        {"patch", R"({"patch":{"waninfo":{"ipaddr":5}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "waninfo.ipaddr: must be a text"},
        {"patch", R"({"patch":{"laninfo":{"02C0FFEE0001":{"rssi":"-50"}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "laninfo.02C0FFEE0001.rssi: must be a signed 32-bit number"},
        {"patch", R"({"patch":{"laninfo":{"02C0FFEE0001":{"mac":"x"}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "laninfo.02C0FFEE0001.mac: no such member"},
        {"patch", R"({"patch":{"wifi_ap":{"6G":{}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         R"(wifi_ap.6G: must be "2.4G" or "5G")"},
        {"patch", R"({"patch":{"wifi_timer":{"first":{}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "wifi_timer.first: must be keyed by numbers"},
        {"patch", R"({"patch":{"neighbourinfo":[{"channel":-1}]}})", UBUS_STATUS_INVALID_ARGUMENT,
         "neighbourinfo[0].channel: must be a number from 0 to 4294967295"},
        {"patch", R"({"patch":{"app":{"../weather":{}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         "app.../weather: not a name for an app"},
        {"patch", R"({"patch":{"app":{"weather":{"NeedGWVendor":1}}}})", UBUS_STATUS_INVALID_ARGUMENT,
         R"(app.weather.NeedGWVendor: must be "0" or "1")"},
        {"calls", R"({"clear":"yes"})", UBUS_STATUS_INVALID_ARGUMENT, "clear: must be true or false"},
        {"fail", R"({})", UBUS_STATUS_INVALID_ARGUMENT, "call: no such function: "},
        {"fail", R"({"call":"qzcap_fly"})", UBUS_STATUS_INVALID_ARGUMENT,
         "call: no such function: qzcap_fly"},
        {"fail", R"({"call":"qzcap_reset","times":-1})", UBUS_STATUS_INVALID_ARGUMENT,
         "times: must be a whole number from 0 to 1000000"},
        {"fail", R"({"call":"qzcap_reset","mode":"slow"})", UBUS_STATUS_INVALID_ARGUMENT,
         "mode: must be error, timeout, empty or blank"},
        {"fail", R"({"call":"qzcap_reset","completion":true})", UBUS_STATUS_INVALID_ARGUMENT,
         "completion: qzcap_reset ends with its answer"},
        {"fail", R"({"call":"qzcap_install_app","completion":"later"})", UBUS_STATUS_INVALID_ARGUMENT,
         "completion: must be true or false"},
        {"fail", R"({"call":"qzcap_install_app","completion":true,"mode":"blank"})",
         UBUS_STATUS_INVALID_ARGUMENT, "mode: an outcome is not blank"},
        {"notify", R"({"object":8,"method":"x","message":{}})", UBUS_STATUS_NOT_FOUND,
         "object: no such platform object"},
        {"notify", R"({"object":5,"method":"x"})", UBUS_STATUS_INVALID_ARGUMENT,
         "object (number), method (text) and message (object) must be given"},
        {"app", R"({"message":"x"})", UBUS_STATUS_INVALID_ARGUMENT, "message: must be an object"},
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
        {"", "not JSON, line 1"},
        {"{\n\"devinfo\": {\n,}}", "not JSON, line 3"},
        {"{} {}", "not JSON, line 1"},
        {"[]", "the state must be an object"},
        {R"({"devinfo":{"mac":7}})", "devinfo.mac: must be a text"},
        {R"({"led_switch":1})", "led_switch: must be a text"},
        {R"({"led_switch":null})", "led_switch: must be a text"},
        {R"({"serverinfo":{"abi_list":["a",1]}})", "serverinfo.abi_list: must be an array of texts"},
        {R"({"vsie_beacontx":{"0":{"data":"xyz"}}})",
         "vsie_beacontx.0.data: must be a text of pairs of hexadecimal digits"},
        {R"({"devinfo":{"lanports":[0]}})",
         "devinfo.lanports: must be an array of numbers from 1 to 4294967295"},
    };
    for (const Case &item : cases) {
        Process daemon({QZCAPD, "--state", file("state.json", item.content), "-s", socket()});
        EXPECT_EQ(daemon.wait(), 1) << item.content;
        EXPECT_THAT(daemon.output(), HasSubstr(std::string("state.json: ") + item.complaint)) << item.content;
    }
    Process missing({QZCAPD, "--state", "/nowhere/state.json", "-s", socket()});
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_THAT(missing.output(), HasSubstr("/nowhere/state.json: cannot be read"));
    Process directory({QZCAPD, "--state", "/", "-s", socket()});
    EXPECT_EQ(directory.wait(), 1);
    EXPECT_THAT(directory.output(), HasSubstr("/: cannot be read"));
    Process busless({QZCAPD, "--state", HOME_STATE, "-s", socket() + ".none"});
    EXPECT_EQ(busless.wait(), 1);
    EXPECT_THAT(busless.output(), HasSubstr("no bus at"));
}

/// An app of this process, and one message sent to it through the emulator or the app manager.
class Apps : public Emulator {
  protected:
    static int answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                      blob_attr *msg) {
        return ubus_send_reply(ctx, req, msg);
    }

    static int say_nothing(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
        return 0;
    }

    static int ignore(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
        ubus_request_data never{};
        ubus_defer_request(ctx, req, &never);
        uloop_end();
        return 0;
    }

    /// The status and, when there is one, the answer. The loop serves the app meanwhile.
    std::string send_message(const std::function<void()> &once_delivered = nullptr) {
        return exchange(
            "qzcapd.emulator", "app",
            std::string(R"({"message":{"CmdType":"ECHO"},"app":")") + program_invocation_short_name + "\"}",
            once_delivered);
    }

    /// The same by way of the app manager.
    std::string post_message() {
        return exchange("qzcapd.appmgt", "postmsg",
                        std::string(R"({"message":"{\"CmdType\":\"ECHO\"}","name":")") +
                            program_invocation_short_name + "\"}");
    }

    static std::string exchange(const char *object, const char *method, const std::string &arguments,
                                const std::function<void()> &once_delivered = nullptr) {
        struct Exchange {
            ubus_request request{};
            std::string answer;
            int status = -1;
        } call;
        blob_buf buf{};
        blob_buf_init(&buf, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf, arguments.c_str()));
        ubus_context *ctx = qzcap_get_ubus_context();
        EXPECT_EQ(ubus_invoke_async(ctx, qzcap_get_objid_by_name(object), method, buf.head, &call.request),
                  0);
        blob_buf_free(&buf);
        call.request.data_cb = [](ubus_request *request, int, blob_attr *msg) {
            char *text = nullptr;
            ubus_request carrier{};
            carrier.priv = &text;
            qzcap_data_cb(&carrier, 0, msg);
            reinterpret_cast<Exchange *>(request)->answer = text_ptr(text).get();
        };
        call.request.complete_cb = [](ubus_request *request, int status) {
            reinterpret_cast<Exchange *>(request)->status = status;
            uloop_end();
        };
        ubus_complete_request_async(ctx, &call.request);
        if (once_delivered) {
            uloop_run_timeout(-1);
            once_delivered();
        }
        EXPECT_TRUE(run_until([&] { return call.status >= 0; }));
        return std::to_string(call.status) + " " + call.answer;
    }
};

TEST_F(Apps, MessagesReachTheRegisteredCallbackAndItsAnswerComesBack) {
    qzcap_appmgtcb callbacks{};
    callbacks.postmsg = answer;
    void *handle = qzcap_register_appmgtcb(nullptr, &callbacks);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(send_message(), R"(0 {"CmdType":"ECHO"})");
    EXPECT_EQ(qzcap_register_appmgtcb(nullptr, &callbacks), nullptr) << "the name is taken";
    callbacks.postmsg = nullptr;
    EXPECT_EQ(send_message(), std::to_string(UBUS_STATUS_METHOD_NOT_FOUND) + " ");
    qzcap_unregister_appmgtcb(handle);
    EXPECT_THAT(send_message(), testing::StartsWith(std::to_string(UBUS_STATUS_NOT_FOUND)));
    qzcap_unregister_appmgtcb(nullptr);
    EXPECT_EQ(qzcap_register_appmgtcb(nullptr, nullptr), nullptr);
}

TEST_F(Apps, MessagesOfOtherAppsReachProgramsOnTheBusOrAreAnsweredInTheirPlace) {
    const std::string app = program_invocation_short_name;
    EXPECT_EQ(post_message(), R"(0 {"result":-1,"failreason":"no such app: )" + app + "\"}");
    patch(R"({"app":{")" + app + R"(":{"version":"1","state":"running"}}})");
    EXPECT_EQ(post_message(),
              R"(0 {"result":0,"text":"{\"app\":\")" + app + R"(\",\"message\":{\"CmdType\":\"ECHO\"}}"})");
    EXPECT_STREQ(text_ptr(qzcap_app_postmsg(nullptr, "weather", "[1]", nullptr)).get(),
                 R"({"Status":"0","Sky":"clear"})");

    qzcap_appmgtcb callbacks{};
    callbacks.postmsg = answer;
    void *handle = qzcap_register_appmgtcb(nullptr, &callbacks);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(post_message(), R"(0 {"result":0,"text":"{\"CmdType\":\"ECHO\"}"})");
    // The library waits inside the loop that would serve the app: it does not answer.
    for (const auto &[message, reason] :
         {std::pair<const char *, std::string>{"{}", "the app does not answer: " + app},
          {"[1]", "message: must be an object for a program on the bus"}}) {
        char *error = nullptr;
        EXPECT_EQ(qzcap_app_postmsg(nullptr, app.c_str(), message, &error), nullptr);
        EXPECT_EQ(text_ptr(error).get(), reason);
    }
    callbacks.postmsg = nullptr;
    EXPECT_EQ(post_message(),
              R"(0 {"result":-1,"failreason":"the app )" + app + R"( fails: Method not found"})");
    callbacks.postmsg = say_nothing;
    EXPECT_EQ(post_message(), R"(0 {"result":-1,"failreason":"the app gave no answer: )" + app + "\"}");
    qzcap_unregister_appmgtcb(handle);
}

TEST_F(Apps, UnansweredMessageEndsWithTheDaemon) {
    qzcap_appmgtcb callbacks{};
    callbacks.postmsg = ignore;
    void *handle = qzcap_register_appmgtcb(nullptr, &callbacks);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(send_message([this] { stop_platform(); }), std::to_string(UBUS_STATUS_CONNECTION_FAILED) + " ");
    qzcap_unregister_appmgtcb(handle);
}

}  // namespace
}  // namespace arvok::test
