// Plugin identifiers at their edges.

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

}  // namespace
}  // namespace arvok::cloud
