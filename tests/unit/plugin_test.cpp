// Plugin identifiers at their edges, and installations that end as the platform library seldom lets them.

#include "cloud/plugin_id.h"

#include "base/bus_message.h"
#include "cloud_fixture.h"

namespace arvok::cloud {
namespace {

const std::string prefix = "com.marobelvinta.all.smartap.";

// The installation under way, and why apps do not run.
ubus_request ending;
qzcap_install_handler_t end_installation;
std::string apps_run, run_fault;

TEST_F(Cloud, IdentifiersAtTheirEdges) {
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
        {prefix + "ipq5018x_ipq5018x", "", "plugin vendor mismatch, [ipq5018x]:[Acme]"},
        {prefix + fits + "n_ipq5018x", "", "plugin name is too long"},
        {prefix + "_ipq5018x", "", "plugin name is too long"},
        {prefix + "ipq5018x", "", "plugin name is too long"},
        {prefix + "ab-ipq5018x", "", "plugin id is invalid"},
        {prefix + "a_ipq501", "", "plugin arch mismatch, [a_ipq501]:[ipq5018x]"},
        {"Com" + prefix.substr(3) + "a_ipq5018x", "", "plugin id prefix mismatch"},
    };
    for (const auto &row : rows) {
        log();
        EXPECT_EQ(app_of_plugin(row.id, row.device_vendor).value_or(""), row.name) << row.id;
        EXPECT_EQ(log(), row.complaint.empty() ? "" : "[ERROR] " + row.complaint + "\n") << row.id;
    }
}

// A JSON text is not read to any depth.
void nest(bus_message &message, int depth) {
    const bus_message::table inner(message, "t");
    if (depth > 0)
        nest(message, depth - 1);
}

TEST_F(Cloud, AnInstallationsEndIsToldWhereItCanBe) {
    const std::string shortened = R"("Version":"1234567890ABCD","upgrade_ID":"1234567890ABCDE",)";
    connect_fully();
    bus_message good, odd;
    nest(odd, 1000);
    ubus_request nobodys{};
    const struct {
        ubus_request *request;
        blob_attr *message;
        const char *line, *run;
    } ends[] = {
        {&ending, good.get(), "[WARNING] plugin version mismatch, :1234567890ABCD\n", "radio"},
        {&ending, odd.get(), "[WARNING] plugin_install_cb: msg is not json format\n", "radio"},
        {&ending, nullptr, "[WARNING] plugin_install_cb: req or msg is null\n", ""},
        {&nobodys, good.get(), "[WARNING] plugin_install_cb: plugin_info is null\n", ""},
        {&ending, good.get(), "): \n", ""},  // the client has gone
    };
    for (const auto &end : ends) {
        if (end.request == &ending)
            ask("Install",
                R"(,"Version":"1234567890ABCDé","upgrade_ID":"1234567890ABCDEF","Plugin_size":"1",)"
                R"("Download_url":"u","NeedRun":"1","OS":"","Plugin_Name":")" +
                    prefix + R"(radio_ipq5018x")");
        if (&end == std::end(ends) - 1)
            end_client();
        log();
        apps_run = "";
        end_installation(end.request, end.message);
        const std::string lines = log();
        EXPECT_TRUE(lines.ends_with(end.line)) << lines;
        EXPECT_EQ(apps_run, end.run) << end.line;
        const std::string told = &end == ends ? receive() : shortened;
        EXPECT_TRUE(contains(told, shortened)) << told;
    }
}

TEST_F(Cloud, ALongReasonIsCutBetweenCharacters) {
    connect_fully();
    for (run_fault = "x"; run_fault.size() < 255;)
        run_fault += "末";
    EXPECT_EQ(ask("Run", R"(,"Plugin_Name":"ArvokAP","Version":"")"),
              R"({"Ack":"Run","ID":"1","Result":-1,"FailReason":"qzacp app action 2 failed: )" +
                  run_fault.substr(0, 1 + 3 * 75) + "\"}");
    run_fault = "";
}

}  // namespace
}  // namespace arvok::cloud

using namespace arvok::cloud;

int qzcap_install_app(ubus_context *, const char *, qzcap_install_handler_t done, void *priv) {
    end_installation = done;
    ending.priv = priv;
    return 0;
}

int qzcap_run_app(ubus_context *, const char *name, char **why) {
    apps_run += name;
    *why = qzcap_strdup(run_fault.c_str());
    return run_fault.empty() ? 0 : -1;
}
