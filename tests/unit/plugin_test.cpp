// Plugin identifiers at their edges, and installations that end as the platform library seldom lets them.

#include "cloud/plugin_id.h"

#include "base/bus_message.h"
#include "cloud_fixture.h"

namespace arvok::cloud {
namespace {

const std::string prefix = "com.marobelvinta.all.smartap.";

// The installation under way, one without a record, and why apps do not run.
ubus_request ending, nobodys;
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
        {prefix + "a_ipq5018x_" + vendor, "a", "", vendor + "v"},  // cut, as it is listed
        {prefix + "a_ipq5018x_" + vendor + "v", "", "plugin id is too long", vendor + "v"},
        {prefix + "a_ipq5018x_Acm", "", "plugin vendor mismatch, [Acm]:[Acme]"},
        {prefix + "ipq5018x_ipq5018x", "", "plugin vendor mismatch, [ipq5018x]:[Acme]"},
        {prefix + fits + "n_ipq5018x", "", "plugin name is too long"},
        {prefix + "_ipq5018x", "", "plugin name is too long"},
        {prefix + "ipq5018x", "", "plugin name is too long"},
        {prefix + "ab-ipq5018x", "", "plugin id is invalid"},
        {prefix + "a.b_ipq5018x", "a.b", ""},
        {prefix + ".b_ipq5018x", "", "plugin name is invalid"},
        {prefix + "a/b_ipq5018x", "", "plugin name is invalid"},
        {prefix + "a_ipq501", "", "plugin arch mismatch, [a_ipq501]:[ipq5018x]"},
    };
    for (const auto &row : rows) {
        log();
        EXPECT_EQ(app_of_plugin(row.id, row.device_vendor).value_or(""), row.name) << row.id;
        EXPECT_EQ(log(), row.complaint.empty() ? "" : "[ERROR] " + row.complaint + "\n") << row.id;
    }
}

TEST_F(Cloud, WhatCameOfAnAppIsToldWhereItCanBe) {
    connect_fully();
    for (run_fault = "x"; run_fault.size() < 255;)
        run_fault += "末";
    EXPECT_TRUE(contains(ask("Run", R"(,"Plugin_Name":"ArvokAP","Version":"")"),
                         " action 2 failed: " + run_fault.substr(0, 1 + 3 * 75) + "\"}"));
    run_fault = "";
    bus_message good, odd;
    const std::function<void(int)> nest = [&](int depth) {
        const bus_message::table inner(odd, "t");
        depth > 0 ? nest(depth - 1) : void();
    };
    nest(1000);  // JSON is not read to that depth
    const std::tuple<ubus_request *, blob_attr *, const char *, const char *> ends[] = {
        {&ending, good.get(), "[WARNING] plugin version mismatch, :1234567890ABCD\n", "a"},
        {&ending, odd.get(), "[WARNING] plugin_install_cb: msg is not json format\n", "a"},
        {&ending, nullptr, "[WARNING] plugin_install_cb: req or msg is null\n", ""},
        {&nobodys, good.get(), "[WARNING] plugin_install_cb: plugin_info is null\n", ""},
        {&ending, good.get(), "): \n", ""},  // the client has gone
    };
    for (const auto &[request, message, line, run] : ends) {
        if (request == &ending)
            ask("Install", R"(,"Version":"1234567890ABCDé","upgrade_ID":"1234567890ABCDEF","Plugin_size":"",)"
                           R"("Download_url":"","NeedRun":"1","OS":"","Plugin_Name":")" +
                               prefix + R"(a_ipq5018x")");
        if (line[0] == ')')
            end_client();
        log(), apps_run = "";
        end_installation(request, message);
        EXPECT_TRUE(log().ends_with(line)) << line;
        EXPECT_EQ(apps_run, run) << line;
        const bool shown = contains(line, "ABCD");
        EXPECT_TRUE(!shown ||
                    contains(receive(), R"("Version":"1234567890ABCD","upgrade_ID":"1234567890ABCDE")"));
    }
}

class Installations : public Cloud {
  protected:
    // One of an app for each number, which its upgrade tells; none has ended yet.
    void install(int number) {
        ask("Install", format(R"(,"Version":"1","upgrade_ID":"%d","Plugin_size":"","Download_url":"",)"
                              R"("NeedRun":"0","OS":"","Plugin_Name":"%sa_ipq5018x")",
                              number, prefix.c_str()));
        under_way_.push_back(ending.priv);
    }
    void end(int number) {
        bus_message good;
        ending.priv = under_way_[static_cast<std::size_t>(number)];
        end_installation(&ending, good.get());
    }
    void end_connection() {
        client_->wan_down();
        client_->wan_up();
        accept_one();
        receive();
    }
    void come_back() {
        answer_challenge();
        become_connected();
    }
    // The number of the next result; its ID acknowledges it.
    int take_result() {
        const std::string text = receive();
        const json::document told = json::parse(text);
        EXPECT_TRUE(contains(text, R"("RPCMethod":"InstallNotification")")) << text;
        id_ = told["ID"].text().value_or("");
        return std::atoi(std::string(told["upgrade_ID"].text().value_or("-1")).c_str());
    }
    void acknowledge(const std::string &id) {
        send(ack("InstallNotification", R"("ID":")" + id + R"(","Result":0)"));
    }
    // The last that the device says is the answer to this.
    void expect_nothing_told() { EXPECT_TRUE(contains(ask("Nothing"), "UNRECOGNIZE")); }

    std::vector<void *> under_way_;
    std::string id_;
};

TEST_F(Installations, TheLastAreToldWhenThereIsAConnectionAgain) {
    constexpr int most = 16;
    connect_fully();
    for (int number = 0; number < most; number++)
        install(number);
    // A request leaves no trace here nor with the app manager while so many have not ended.
    ending.priv = nullptr;
    install(most);
    EXPECT_EQ(under_way_.back(), nullptr);
    under_way_.pop_back();
    EXPECT_TRUE(contains(log(), R"("Result":-1,"FailReason":"too many"})"));
    end(0);
    EXPECT_EQ(take_result(), 0);
    install(most);
    end_connection();
    for (int number = 1; number <= most; number++)
        end(number);
    come_back();
    for (int number = 1; number <= most; number++)  // the first had no room
        EXPECT_EQ(take_result(), number);
    expect_nothing_told();
}

TEST_F(Installations, AreToldTwiceUnlessAcknowledged) {
    connect_fully();
    for (int number = 0; number < 5; number++)
        install(number);
    for (int number = 0; number < 3; number++) {
        end(number);
        EXPECT_EQ(take_result(), number);
        if (number == 1)
            acknowledge(id_);
    }
    end(3);  // and the connection ends before it is written
    end_connection();
    end(4);
    come_back();
    for (const int number : {0, 2, 3, 4})
        EXPECT_EQ(take_result(), number);
    acknowledge(id_);
    acknowledge("unknown");
    send(ack("InstallNotification", R"("Result":0)"));  // the oldest that was told
    expect_nothing_told();
    end_connection();
    come_back();
    EXPECT_EQ(take_result(), 3);  // it had been told once
    end_connection();
    come_back();
    expect_nothing_told();
}

TEST_F(Installations, WaitForRoom) {
    connect_fully();
    install(0);
    for (int i = 0; i < 1000; i++) {
        client_->send_notification(std::string(6000, 'n'));
        run_loop_once();
    }
    EXPECT_TRUE(contains(log_text(), "[WARNING] (cloud) drop own msgs, ready 1, "));
    end(0);
    send(R"({"RPCMethod":"Nothing","ID":"1"})");
    std::string message;
    int results = 0;
    do {
        message = receive();
        results += contains(message, "InstallNotification");
    } while (contains(message, "PluginNotification"));
    EXPECT_TRUE(contains(message, "UNRECOGNIZE"));
    EXPECT_EQ(results, 0);
    expect_nothing_told();  // until the platform is heard of again
    EXPECT_EQ(take_result(), 0);
}

}  // namespace
}  // namespace arvok::cloud

int qzcap_install_app(ubus_context *, const char *, qzcap_install_handler_t done, void *priv) {
    arvok::cloud::ending.priv = priv;
    arvok::cloud::end_installation = done;
    return 0;
}

int qzcap_run_app(ubus_context *, const char *name, char **why) {
    arvok::cloud::apps_run += name;
    *why = qzcap_strdup(arvok::cloud::run_fault.c_str());
    return **why ? -1 : 0;
}
