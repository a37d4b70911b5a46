// Records reach the library's callers as the device's state has them, and settings come back.
#include <functional>

#include "desk.h"
#include "record.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok::test {
namespace {

struct Buffer {
    blob_buf buf{};
    Buffer() { blob_buf_init(&buf, 0); }
    ~Buffer() { blob_buf_free(&buf); }
};

/// A record as JSON, by its own table.
std::string rendered(const capi::Record &kind, const void *record) {
    if (record == nullptr) {
        return "(null)";
    }
    Buffer buffer;
    capi::put_record(&buffer.buf, kind, record, capi::Fields::all);
    const text_ptr text(blobmsg_format_json_with_cb(buffer.buf.head, true, nullptr, nullptr, -1));
    return text.get();
}

/// The stored record with its key among the fields and the fields in the table's order; a number that the
/// document leaves out is 0, a list of texts empty.
std::string expected(const capi::Record &kind, const cJSON *stored, const std::string &key_name = "",
                     bool number = false) {
    json_ptr record(cJSON_CreateObject());
    for (const capi::Field &field : kind.fields) {
        const cJSON *value = cJSON_GetObjectItemCaseSensitive(stored, field.name);
        cJSON *copy = value != nullptr ? cJSON_Duplicate(value, true) : nullptr;
        if (key_name == field.name) {
            copy =
                number ? cJSON_CreateNumber(std::stod(stored->string)) : cJSON_CreateString(stored->string);
        } else if (copy == nullptr &&
                   (field.type == capi::FieldType::u32 || field.type == capi::FieldType::i32)) {
            copy = cJSON_CreateNumber(0);
        } else if (copy == nullptr && field.type == capi::FieldType::texts) {
            copy = cJSON_CreateArray();
        }
        if (copy != nullptr) {
            cJSON_AddItemToObject(record.get(), field.name, copy);
        }
    }
    return print(record.get());
}

class Records : public Desk {
  protected:
    template <typename T>
    void check(const char *path, const capi::Record &kind, T *(*get)(), void (*release)(T *)) {
        const std::unique_ptr<T, void (*)(T *)> record(get(), release);
        EXPECT_EQ(rendered(kind, record.get()), expected(kind, at(state().get(), path))) << path;
    }

    template <typename T, typename List, typename Free>
    void check_list(const char *path, const capi::Record &kind, List list, Free release, const char *key = "",
                    bool number = false) {
        unsigned int count = 0;
        T **records = nullptr;
        ASSERT_EQ(list(&count, &records), 0) << path;
        const json_ptr document = state();
        const cJSON *stored = at(document.get(), path);
        ASSERT_EQ(count, static_cast<unsigned int>(cJSON_GetArraySize(stored))) << path;
        ASSERT_GT(count, 0U) << path << ": nothing to compare";
        for (unsigned int i = 0; i < count; ++i) {
            EXPECT_EQ(rendered(kind, records[i]),
                      expected(kind, cJSON_GetArrayItem(stored, static_cast<int>(i)), key, number))
                << path;
        }
        release(count, records);
    }
};

TEST_F(Records, ArriveComplete) {
    patch(R"({"serverinfo":{"abi":"100.64.0.2:9000","abi_list":["100.64.0.3:9000","100.64.0.4:9000"]},
              "iptv":{"ports":[2,3]},
              "waninfo":{"negorate":4294967295},
              "mesh_roaming":{"enable":"yes","rssi_2g":-70,"rssi_5g":-2147483648,"difference":6,"interval":7}})");
    check("devinfo", capi::devinfo, qzcap_get_devinfo, qzcap_free_devinfo);
    check("diagnostics", capi::diagnostics, qzcap_diagnostics_get, qzcap_free_diagnostics);
    check("netstatinfo", capi::netstatinfo, qzcap_diagnostics_netstat, qzcap_free_netstatinfo);
    check("terminalnum", capi::terminalnum, qzcap_get_terminalnum, qzcap_free_terminalnum);
    check("serverinfo", capi::serverinfo, qzcap_get_serverinfo, qzcap_free_serverinfo);
    check("waninfo", capi::waninfo, qzcap_get_waninfo, qzcap_free_waninfo);
    check("wifi_switch", capi::wifi_switch, qzcap_get_wifi_switch, qzcap_free_wifi_switch);
    check("roaming", capi::roaming, qzcap_get_roaming, qzcap_free_roaming);
    check("mesh_roaming", capi::roaming, qzcap_get_mesh_roaming, qzcap_free_roaming);
    check("mesh", capi::mesh, qzcap_get_mesh, qzcap_free_mesh);
    check("backhaulbss", capi::backhaulbss, qzcap_mesh_backhaulbss, qzcap_free_backhaulbss);
    check<qzcap_wifiinfo>(
        "wifiinfo.'2.4G'", capi::wifiinfo, [] { return qzcap_get_wifiinfo(QZCAP_RADIO_2G); },
        qzcap_free_wifiinfo);
    check<qzcap_wifiinfo>(
        "wifiinfo.5G", capi::wifiinfo, [] { return qzcap_get_wifiinfo(QZCAP_RADIO_5G); },
        qzcap_free_wifiinfo);
    check<qzcap_wifi_apstat>(
        "wifi_apstat.5G.1", capi::wifi_apstat, [] { return qzcap_wifi_ap_stats(QZCAP_AP_5G, 1); },
        qzcap_free_wifi_apstat);

    check_list<qzcap_laninfo>("laninfo", capi::laninfo, qzcap_list_laninfo, qzcap_free_laninfos, "mac");
    check_list<qzcap_wifi_timer>("wifi_timer", capi::wifi_timer, qzcap_wifi_timer_list,
                                 qzcap_free_wifi_timers, "id", true);
    check_list<qzcap_neighbourinfo>("neighbourinfo", capi::neighbourinfo, qzcap_get_neighbourinfo,
                                    qzcap_free_neighbourinfo);
    for (const auto &[path, code] : {std::pair{"wifi_ap.'2.4G'", QZCAP_AP_2G}, {"wifi_ap.5G", QZCAP_AP_5G}}) {
        check_list<qzcap_wifi_ap>(
            path, capi::wifi_ap,
            [band = code](auto count, auto list) { return qzcap_wifi_ap_list(band, count, list); },
            qzcap_free_wifi_aps, "index", true);
    }
    for (const auto &[path, code] :
         {std::pair{"channel_score.'2.4G'", QZCAP_RADIO_2G}, {"channel_score.5G", QZCAP_RADIO_5G}}) {
        check_list<qzcap_channel_score>(
            path, capi::channel_score,
            [band = code](auto count, auto list) { return qzcap_get_channel_score(band, count, list); },
            qzcap_free_channel_score);
    }
    check_list<qzcap_app>(
        "app", capi::app,
        [](auto count, auto list) { return qzcap_get_applist(qzcap_get_ubus_context(), count, list); },
        qzcap_free_applist, "name");

    EXPECT_STREQ(text_ptr(qzcap_get_led_switch()).get(), "on");
    EXPECT_EQ(text_ptr(qzcap_mesh_topo(0)).get(), print(at(state().get(), "mesh_topo")));
}

TEST_F(Records, MembersOutsideTheDocumentAreNullOrZero) {
    patch(R"({"devinfo":{"vendor":null,"lanports":null,"supportMesh":null},"laninfo":null,"led_switch":null,
              "wifi_switch":null,"mesh_topo":null})");
    const std::unique_ptr<qzcap_devinfo, void (*)(qzcap_devinfo *)> device(qzcap_get_devinfo(),
                                                                           qzcap_free_devinfo);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->vendor, nullptr);
    EXPECT_EQ(device->lanports, nullptr);
    EXPECT_EQ(device->supportMesh, 0U);
    EXPECT_EQ(device->wanports[0], 4U);
    EXPECT_EQ(device->wanports[1], 0U);
    unsigned int count = 7;
    qzcap_laninfo **hosts = nullptr;
    EXPECT_EQ(qzcap_list_laninfo(&count, &hosts), 0);
    EXPECT_EQ(count, 0U);
    EXPECT_NE(hosts, nullptr) << "an empty list is a list";
    qzcap_free_laninfos(count, hosts);
    EXPECT_EQ(qzcap_get_wifi_switch(), nullptr);
    EXPECT_EQ(qzcap_get_led_switch(), nullptr);
    EXPECT_EQ(qzcap_mesh_topo(0), nullptr);
}

TEST_F(Records, SingleBandDeviceHasNoSecondBand) {
    patch(R"({"devinfo":{"support_5g":"no"}})");
    unsigned int count = 7;
    qzcap_wifi_ap **aps = nullptr;
    EXPECT_LT(qzcap_wifi_ap_list(QZCAP_AP_5G, &count, &aps), 0);
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(aps, nullptr);
    EXPECT_EQ(qzcap_get_wifiinfo(QZCAP_RADIO_5G), nullptr);
    EXPECT_EQ(qzcap_get_wifiinfo(QZCAP_AP_2G), nullptr) << "a code of another family";
}

/// A setting, what it changes in the document, and to what.
struct Setting {
    const char *name;
    std::function<int()> set;
    const char *path;
    const char *value;
};

char *text(const char *literal) {
    return const_cast<char *>(literal);
}

TEST_F(Records, SettingsAreReadBack) {
    static const char *const macs[] = {"02:00:00:00:00:01", "02:00:00:00:00:02"};
    static const char *const station[] = {"02c0ffee0002"};
    std::uint32_t ports[] = {2, 3, 0};
    unsigned char element[] = {0xdd, 0x05, 0x00, 0xff};
    char *abi[] = {text("100.64.0.3:9000")};
    qzcap_iptv iptv{text("yes"), 85, ports};
    qzcap_serverinfo server{text("100.64.0.9:8088"), nullptr, text("token"), text("id"), 1, abi};
    qzcap_laninfo host{};
    host.devname = text("Renamed");
    host.internetaccess = 1;
    host.downlimit = 2000;
    qzcap_wifiinfo radio{};
    radio.channel = 44;
    radio.bandwidth = 4;
    qzcap_wifi_ap ap{};
    ap.ssid = text("New name");
    ap.enable = text("no");
    ap.guest = 1;
    qzcap_wifi_timer timer{99, text("7"), text("23:15"), text("yes")};
    qzcap_roaming roaming{text("yes"), -60, -61, 5, 6};
    qzcap_vsie_beacontx beacon{text("arvokclt"), 1, 300, element, sizeof(element)};
    qzcap_vsie_proberesp probe{text("02:00:00:00:00:03"), 0, element, 2};

    const Setting settings[] = {
        {"led", [] { return qzcap_set_led_switch("off", nullptr); }, "led_switch", R"("off")"},
        {"iptv", [&] { return qzcap_set_iptv(&iptv, nullptr); }, "iptv",
         R"({"enable":"yes","vlan":85,"ports":[2,3]})"},
        {"workmode", [] { return qzcap_set_workmode("router", nullptr); }, "devinfo.mode", R"("router")"},
        {"serverinfo", [&] { return qzcap_set_serverinfo(&server, nullptr); }, "serverinfo",
         R"({"bss":"100.64.0.9:8088","devtoken":"token","devid":"id","abi_list":["100.64.0.3:9000"]})"},
        {"host name", [&] { return qzcap_set_laninfo(3, &host, nullptr); }, "laninfo.02C0FFEE0003.devname",
         R"("Renamed")"},
        {"host limit", [&] { return qzcap_set_laninfo(3, &host, nullptr); }, "laninfo.02C0FFEE0003.downlimit",
         "2000"},
        {"blacklist", [] { return qzcap_set_blacklist("yes", macs, 2, nullptr); }, "blacklist",
         R"({"enable":"yes","macs":["02:00:00:00:00:01","02:00:00:00:00:02"]})"},
        {"radio channel", [&] { return qzcap_set_wifiinfo_async(QZCAP_RADIO_5G, &radio, 0); },
         "wifiinfo.5G.current_channel", "44"},
        {"radio mode kept", [&] { return qzcap_set_wifiinfo_async(QZCAP_RADIO_5G, &radio, 0); },
         "wifiinfo.5G.wifimode", R"("a/n/ac/ax")"},
        {"access point", [&] { return qzcap_wifi_ap_set(QZCAP_AP_2G, 1, &ap, nullptr); },
         "wifi_ap.'2.4G'.1.ssid", R"("New name")"},
        {"access point key kept", [&] { return qzcap_wifi_ap_set_async(QZCAP_AP_2G, 1, &ap, 0, nullptr); },
         "wifi_ap.'2.4G'.1.key", R"("lavender-teapot")"},
        {"access point added", [&] { return qzcap_wifi_ap_add(QZCAP_AP_2G, &ap, nullptr) == 5 ? 0 : -1; },
         "wifi_ap.'2.4G'.5.bssid", R"("02:5A:10:00:01:05")"},
        {"access point deleted", [] { return qzcap_wifi_ap_delete(QZCAP_AP_2G, 5, nullptr); },
         "wifi_ap.'2.4G'.5", "(none)"},
        {"timer added", [&] { return qzcap_wifi_timer_add(&timer, nullptr); }, "wifi_timer.3",
         R"({"weekday":"7","time":"23:15","enable":"yes"})"},
        {"timer set", [&] { return qzcap_wifi_timer_set(1, &timer, nullptr); }, "wifi_timer.1.time",
         R"("23:15")"},
        {"timer deleted", [] { return qzcap_wifi_timer_delete(1, nullptr); }, "wifi_timer.1", "(none)"},
        {"deassociation", [] { return qzcap_wifi_deassociation(station, 1, nullptr); },
         "laninfo.02C0FFEE0002.active", "0"},
        {"roaming", [&] { return qzcap_set_roaming(&roaming, nullptr); }, "roaming",
         R"({"enable":"yes","rssi_2g":-60,"rssi_5g":-61,"difference":5,"interval":6})"},
        {"mesh role", [] { return qzcap_set_mesh_role("agent", nullptr); }, "mesh.role", R"("agent")"},
        {"element added", [&] { return qzcap_add_vsie_beacontx(&beacon, nullptr); }, "vsie_beacontx.0",
         R"({"name":"arvokclt","flag":1,"lifetime":300,"data":"dd0500ff","state":"added"})"},
        {"second element", [&] { return qzcap_add_vsie_beacontx(&beacon, nullptr) == 1 ? 0 : -1; },
         "vsie_beacontx.1.state", R"("added")"},
        {"element started", [] { return qzcap_vsie_beacontx_action(1, "start", nullptr); },
         "vsie_beacontx.1.state", R"("started")"},
        {"element stopped", [] { return qzcap_vsie_beacontx_action(1, "stop", nullptr); }, "vsie_beacontx.1",
         "(none)"},
        {"elements deleted", [] { return qzcap_delete_vsie_beacontx_by_name("arvokclt", nullptr); },
         "vsie_beacontx", "{}"},
        {"probe response", [&] { return qzcap_add_vsie_proberesp(&probe, nullptr); }, "vsie_proberesp",
         R"([{"mac":"02:00:00:00:00:03","flag":0,"data":"dd05"}])"},
        {"app stopped", [] { return qzcap_stop_app(nullptr, "weather", nullptr); }, "app.weather.state",
         R"("stopped")"},
        {"app started", [] { return qzcap_run_app(nullptr, "printshop", nullptr); }, "app.printshop.state",
         R"("running")"},
        {"app restored", [] { return qzcap_restore_app(nullptr, "printshop", nullptr); },
         "app.printshop.state", R"("stopped")"},
        {"app removed", [] { return qzcap_uninstall_app(nullptr, "weather", nullptr); }, "app.weather",
         "(none)"},
        {"reboot", qzcap_reboot, "waninfo.onlinetime", "0"},
        {"upgrade", [] { return qzcap_upgrade("http://192.168.1.1/ax30-2.4.2.bin", 1, "", nullptr); },
         "devinfo.swversion", R"("2.4.2")"},
        {"reset", qzcap_reset, "led_switch", R"("on")"},
    };
    patch(R"({"serverinfo":{"abi":"100.64.0.2:9000"}})");  // to be dropped
    for (const Setting &setting : settings) {
        EXPECT_EQ(setting.set(), 0) << setting.name;
        EXPECT_EQ(print(at(state().get(), setting.path)), setting.value) << setting.name;
    }
}

/// A call that the platform refuses, and the reason; nothing changes.
struct Refusal {
    std::function<int(char **)> call;
    const char *reason;
};

TEST_F(Records, BadSettingsAreRefusedWithAReasonAndChangeNothing) {
    static const char *const stations[] = {"02C0FFEE0002", "02C0FFEE0005"};
    qzcap_wifi_ap long_ssid{};
    long_ssid.ssid = text("123456789012345678901234567890123");
    const Refusal refusals[] = {
        {[](char **e) { return qzcap_set_led_switch("ON", e); }, "status: must be on or off"},
        {[](char **e) { return qzcap_set_led_switch(nullptr, e); }, "status: missing"},
        {[](char **e) { return qzcap_set_iptv(nullptr, e); }, "record: missing"},
        {[](char **e) { return qzcap_wifi_timer_delete(4000000000U, e); }, "id: no such timer"},
        {[&](char **e) { return qzcap_wifi_ap_set(QZCAP_AP_2G, 1, &long_ssid, e); },
         "wifi_ap.ssid: longer than 32 bytes"},
        {[](char **e) { return qzcap_wifi_deassociation(stations, 2, e); }, "no such station: 02C0FFEE0005"},
        {[](char **e) { return qzcap_app_postmsg(nullptr, "printshop", "{}", e) == nullptr ? -1 : 0; },
         "app is not running: printshop"},
    };
    const std::string before = print(state().get());
    for (const Refusal &refusal : refusals) {
        char *reason = nullptr;
        EXPECT_LT(refusal.call(&reason), 0) << refusal.reason;
        EXPECT_STREQ(text_ptr(reason).get(), refusal.reason);
    }
    EXPECT_EQ(print(state().get()), before);
}

/// The library trusts no answer: what does not fit the record is no record.
TEST(TakeRecord, ChecksEveryMember) {
    struct Case {
        const capi::Record &kind;
        const char *message;
        bool good;
    };
    const Case cases[] = {
        {capi::devinfo, R"({"mac":"a","unknown":{"x":[1]},"lanports":[1,2]})", true},
        {capi::devinfo, R"({"mac":1})", false},
        {capi::devinfo, R"({"lanports":[1,0]})", false},
        {capi::devinfo, R"({"lanports":[1,4294967296]})", false},
        {capi::devinfo, R"({"supportMesh":-1})", false},
        {capi::devinfo, R"({"supportMesh":4294967295})", true},
        {capi::laninfo, R"({"rssi":2147483648})", false},
        {capi::serverinfo, R"({"abi_list":["a","b"]})", true},
        {capi::serverinfo, R"({"abi_list":["a",2]})", false},
        {capi::vsie_beacontx, R"({"data":"00fF"})", true},
        {capi::vsie_beacontx, R"({"data":"00f"})", false},
    };
    for (const Case &item : cases) {
        Buffer buffer;
        ASSERT_TRUE(blobmsg_add_json_from_string(&buffer.buf, item.message)) << item.message;
        void *record = capi::take_record(item.kind, buffer.buf.head);
        EXPECT_EQ(record != nullptr, item.good) << item.message;
        capi::free_record(item.kind, record);
    }
}

}  // namespace
}  // namespace arvok::test
