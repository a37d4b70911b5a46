// Plugin identifiers at their edges, and installations that end oddly. What the platform sees of the ordinary
// ones is the end-to-end tests' affair.

#include "cloud_fixture.h"
#include "common/clock.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

/// What the agent asked the platform to install and to run. The installation ends when the test says so.
std::string installed_url;
void *installation;
std::vector<std::string> apps_run;

}  // namespace

int qzcap_install_app(ubus_context *, const char *url, qzcap_install_handler_t, void *priv) {
    installed_url = url;
    if (installed_url == "refused")
        return -1;
    installation = priv;
    return 0;
}

int qzcap_run_app(ubus_context *, const char *name, char **errtext) {
    apps_run.push_back(name);
    *errtext = qzcap_strdup("tired");
    return 1;
}

namespace arvok {
namespace {

const std::string prefix = "com.marobelvinta.all.smartap.";

class Plugins : public Cloud {
  protected:
    void SetUp() override {
        Cloud::SetUp();
        _strlcpy(g_ctx.arch, "ipq5018x", sizeof g_ctx.arch);
        set_vendor("Acme");
        wall_clock = [] { return std::time_t{0}; };
        apps_run.clear();
        connect_fully();
        uloop_timeout_cancel(&cc->ack_timer);
        log();
    }
    static void set_vendor(const std::string &vendor) {
        qzcap_free(g_ctx.devinfo->vendor);
        g_ctx.devinfo->vendor = qzcap_strdup(vendor.c_str());
    }
    // A request from the platform, and the reply to it.
    std::string ask(const std::string &method, const std::string &members) {
        send_bytes(message(R"({"RPCMethod":")" + method + R"(","ID":"1")" + members + "}"));
        return receive();
    }
    std::string install(const std::string &id, const std::string &version, const std::string &url,
                        const char *run = "0", const std::string &upgrade = "7") {
        return ask("Install", R"(,"Plugin_Name":")" + id + R"(","Version":")" + version +
                                  R"(","Download_url":")" + url + R"(","Plugin_size":"0x10","NeedRun":")" +
                                  run + R"(","OS":"linux","upgrade_ID":")" + upgrade + R"(")");
    }
    static void conclude(blob_attr *outcome) {
        ubus_request request{};
        request.priv = installation;
        plugin_install_cb(&request, outcome);
    }
    static void conclude(const char *outcome) {
        struct blob_buf buf {};
        blob_buf_init(&buf, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf, outcome));
        conclude(buf.head);
        blob_buf_free(&buf);
    }
    // The notification that is sent next, without what differs each time.
    std::string notification() {
        std::string text = receive();
        const std::size_t id = text.find(R"("ID":")");
        EXPECT_NE(id, std::string::npos) << text;
        return text.erase(id, std::strlen(R"("ID":"",)") + 36);
    }
};

TEST_F(Plugins, IdentifiersAtTheirEdges) {
    const std::string fits(31, 'n'), vendor(127 - prefix.size() - std::strlen("a_ipq5018x_"), 'v');
    const struct {
        std::string id, name, complaint;
        std::string device_vendor = "Acme";
    } rows[] = {
        {prefix + "a_ipq5018x", "a", ""},
        {prefix + fits + "_ipq5018x", fits, ""},
        {prefix + "two_words_ipq5018x_Acme", "two_words", ""},
        {prefix + "a_ipq5018x-rest", "a", ""},
        {prefix + "a_ipq5018x_" + vendor, "a", "", vendor},
        {prefix + "a_ipq5018x_" + vendor + "v", "", "plugin id is too long", vendor + "v"},
        {prefix + "a_ipq5018x_Acm", "", "plugin vendor mismatch, [Acm]:[Acme]"},
        {prefix + "a_ipq5018x_", "", "plugin vendor mismatch, []:[Acme]"},
        {prefix + "ipq5018x_ipq5018x", "", "plugin vendor mismatch, [ipq5018x]:[Acme]"},
        {prefix + fits + "n_ipq5018x", "", "plugin name is too long"},
        {prefix + "_ipq5018x", "", "plugin name is too long"},
        {prefix + "ipq5018x", "", "plugin name is too long"},
        {prefix + "ab-ipq5018x", "", "plugin id is invalid"},
        {prefix + "a_ipq501", "", "plugin arch mismatch, [a_ipq501]:[ipq5018x]"},
        {prefix, "", "plugin arch mismatch, []:[ipq5018x]"},
        {"Com" + prefix.substr(3) + "a_ipq5018x", "", "plugin id prefix mismatch"},
        {"", "", "plugin id prefix mismatch"},
    };
    for (const auto &row : rows) {
        set_vendor(row.device_vendor);
        char name[plugin_id_size] = "";
        EXPECT_EQ(cc_parse_plugin_id(row.id.c_str(), name), row.complaint.empty() ? 0 : -1) << row.id;
        EXPECT_EQ(name, row.name);
        EXPECT_EQ(log(), row.complaint.empty() ? "" : "[ERROR] " + row.complaint + "\n") << row.id;
    }
}

TEST_F(Plugins, TheAgentGoesByTwoNames) {
    for (const std::string self : {"ArvokAP", "ArvokAP_ipq5018x", "arvokclt_ipq5018x_Acme"})
        EXPECT_TRUE(cc_is_self((self == "ArvokAP" ? self : prefix + self).c_str())) << self;
    for (const std::string &other : {std::string("arvokclt"), std::string("arvokap"), std::string(),
                                     prefix + "arvokclt2_ipq5018x", prefix + "arvokclt_mips"})
        EXPECT_FALSE(cc_is_self(other.c_str())) << other;
    EXPECT_FALSE(cc_is_self(nullptr));
}

TEST_F(Plugins, AnActionThatThereIsNotFails) {
    const json_ptr request =
        json_parse(R"({"RPCMethod":"Stop","ID":"1","Plugin_Name":"ArvokAP","Version":""})");
    EXPECT_EQ(cc_plugin_action(request.get(), 4), 1);
    EXPECT_EQ(receive(), R"({"Ack":"Stop","ID":"1","Result":-1,"FailReason":"unknown plugin action"})");
    // A reason that is too long is cut between two characters.
    std::string wrong;
    for (int i = 0; i < 120; i++)
        wrong += "错";
    cc->result = -1;
    cc_set_fail_reason("a%s", wrong.c_str());
    cc_reply(request.get());
    EXPECT_EQ(receive(),
              R"({"Ack":"Stop","ID":"1","Result":-1,"FailReason":"a)" + wrong.substr(0, 84 * 3) + R"("})");
}

TEST_F(Plugins, InstallationsAreReportedAsTheyEnd) {
    const std::string id = prefix + "a_ipq5018x";
    const std::string known = R"({"RPCMethod":"InstallNotification","MAC":"021122334455",)"
                              R"("Time":"19700101080000","Plugin_Name":")" +
                              id + R"(","Version":"1.0","upgrade_ID":"7",)";
    const struct {
        const char *outcome;
        std::string reported, warnings;
    } rows[] = {
        {R"({"result":0,"name":"a","version":"1.0"})", R"("Result":0,"errcode":0})", ""},
        {R"({"result":5,"failreason":"other device","name":"a","version":"1.0"})",
         R"("Result":-1,"errcode":5,"FailReason":"other device"})", ""},
        {R"({"result":-3,"failreason":7})", R"("Result":-1,"errcode":-3,"FailReason":""})",
         "[WARNING] plugin name mismatch, :a\n[WARNING] plugin version mismatch, :1.0\n"},
        {R"({"result":"5","name":"b","version":"1.0.0"})", R"("Result":0,"errcode":0})",
         "[WARNING] plugin name mismatch, b:a\n[WARNING] plugin version mismatch, 1.0.0:1.0\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(install(id, "1.0", "http://x/a"), R"({"Ack":"Install","ID":"1","Result":0})");
        log();
        conclude(row.outcome);
        const std::string lines = log();
        const std::string start = "[INFO] plugin_install_cb (";
        const std::size_t place = lines.find_first_not_of("0123456789", start.size());
        EXPECT_EQ(lines.substr(0, start.size()), start);
        EXPECT_EQ(lines.substr(place),
                  "): \n[DEBUG] plugin_install_cb: " + std::string(row.outcome) + "\n" + row.warnings);
        EXPECT_EQ(notification(), known + row.reported);
    }
    EXPECT_TRUE(apps_run.empty());
    EXPECT_FALSE(cc->ack_timer.pending);
}

TEST_F(Plugins, TextsOfAnInstallationAreCutToTheirFields) {
    const std::string id = prefix + "a_ipq5018x";
    install(id, std::string(40, '1'), std::string(300, 'u'), "1", std::string(40, '9'));
    EXPECT_EQ(installed_url, std::string(255, 'u'));
    conclude(R"({"result":0})");
    EXPECT_EQ(notification(), R"({"RPCMethod":"InstallNotification","MAC":"021122334455",)"
                              R"("Time":"19700101080000","Plugin_Name":")" +
                                  id + R"(","Version":")" + std::string(15, '1') + R"(","upgrade_ID":")" +
                                  std::string(15, '9') + R"(","Result":0,"errcode":0})");
    EXPECT_EQ(apps_run, std::vector<std::string>{"a"});
}

TEST_F(Plugins, AnInstallationWithoutAnOutcomeIsOnlyLogged) {
    const std::string id = prefix + "a_ipq5018x";
    EXPECT_EQ(install(id, "1.0", "refused"),
              R"({"Ack":"Install","ID":"1","Result":-1,"FailReason":"qzcap_install_app failed"})");
    EXPECT_EQ(install(prefix + "a_mips", "1.0", "x"),
              R"({"Ack":"Install","ID":"1","Result":-1,"FailReason":"invalid Plugin_Name"})");
    // The platform has never answered: there is nothing to say, and nothing to run.
    install(id, "1.0", "x", "1");
    conclude(static_cast<blob_attr *>(nullptr));
    expect_log("[WARNING] plugin_install_cb: req or msg is null\n");
    log();
    plugin_install_cb(nullptr, nullptr);
    expect_log("[WARNING] plugin_install_cb: req or msg is null\n");
    installation = nullptr;
    conclude("{}");
    expect_log("[WARNING] plugin_install_cb: plugin_info is null\n");
    EXPECT_TRUE(apps_run.empty());

    // An answer that cannot be read may still have been a success.
    install(id, "1.0", "x", "1");
    struct blob_buf buf {};
    blob_buf_init(&buf, 0);
    std::vector<void *> tables(1500);
    for (void *&table : tables)
        table = blobmsg_open_table(&buf, "level");
    for (auto table = tables.rbegin(); table != tables.rend(); ++table)
        blobmsg_close_table(&buf, *table);
    conclude(buf.head);
    blob_buf_free(&buf);
    expect_log(
        "[WARNING] plugin_install_cb: msg is not json format\n"
        "[WARNING] plugin_install_cb: qzcap_run_app failed: tired\n");
    EXPECT_EQ(apps_run, std::vector<std::string>{"a"});
    EXPECT_EQ(ask("Nothing", ""),
              R"({"Ack":"Nothing","ID":"1","Result":-1,"FailReason":"UNRECOGNIZE_REQUEST"})");
}

}  // namespace
}  // namespace arvok
