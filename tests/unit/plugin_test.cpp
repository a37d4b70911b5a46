// Plugin identifiers at their edges, and installations that end oddly.

#include <memory>

#include "base/bus_message.h"
#include "cloud/plugin_id.h"
#include "cloud_fixture.h"

namespace arvok::cloud {
namespace {

const std::string prefix = "com.marobelvinta.all.smartap.";

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

// An installation that ends with a text that cannot be read may still have been a success.
TEST_F(Cloud, AnInstallationIsOrderedInCutTextsAndEndsWithoutAnOutcome) {
    connect_fully();
    const auto install = [&] {
        EXPECT_EQ(ask("Install", R"(,"Plugin_Name":")" + prefix +
                                     R"(a_ipq5018x","Version":"1","Download_url":")" + std::string(300, 'u') +
                                     R"(","Plugin_size":"","NeedRun":"1","OS":"","upgrade_ID":"")"),
                  R"({"Ack":"Install","ID":"1","Result":0})");
        EXPECT_EQ(machine.installed_url, std::string(255, 'u'));
    };
    ubus_request request{};
    install();
    request.priv = machine.installation;
    machine.installed(&request, nullptr);
    EXPECT_TRUE(log().ends_with("[WARNING] plugin_install_cb: req or msg is null\n"));

    install();
    request.priv = machine.installation;
    bus_message message;
    {
        std::vector<std::unique_ptr<bus_message::table>> tables;
        for (int i = 0; i < 1500; i++)
            tables.push_back(std::make_unique<bus_message::table>(message, "level"));
        while (!tables.empty())
            tables.pop_back();
    }
    for (int i = 0; i < 120; i++)
        machine.run_failure += "错";
    machine.installed(&request, message.get());
    EXPECT_TRUE(
        log().ends_with("[WARNING] plugin_install_cb: msg is not json format\n"
                        "[WARNING] plugin_install_cb: qzcap_run_app failed: " +
                        machine.run_failure + "\n"));
    // In a reply a reason is cut between two characters.
    const std::string reason = "qzacp app action 2 failed: ";
    EXPECT_EQ(ask("Run", R"(,"Plugin_Name":"ArvokAP","Version":"")"),
              R"({"Ack":"Run","ID":"1","Result":-1,"FailReason":")" + reason +
                  machine.run_failure.substr(0, (255 - reason.size()) / 3 * 3) + R"("})");
}

}  // namespace
}  // namespace arvok::cloud
