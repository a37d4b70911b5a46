// Key negotiation, keepalives, and what becomes of messages that are not what they should be.

#include "gateway/control.h"
#include "gateway/first_seen.h"
#include "gateway/reports.h"
#include "gateway/rssi_queries.h"
#include "link_peer.h"

namespace arvok::gateway {
namespace {

TEST_F(Link, TheKeyAnswerIsAwaitedForFiveSeconds) {
    connect();
    const struct {
        const char *body, *line;
    } useless[] = {
        {"[1, 2, 3, 4]", "[ERROR] (arvok) type not found\n"},
        {R"({"type":5,"x":1})", "[ERROR] (arvok) type not found\n"},
        {R"({"type":"CFG"})", "[ERROR] (arvok) unknown type: CFG\n"},
        {R"({"type":"keyngack","keymode":7})", "[ERROR] invalid keymode\n"},
        {R"({"type":"keyngack","keymode":"DH"})", "[ERROR] unsupported keymode\n"},
        {R"({"type":"ubus_call","sequence":1,"data":[]})", "[ERROR] invalid mac\n"},
    };
    for (const auto &u : useless) {
        log();
        send(u.body);
        expect_log(u.line);
        EXPECT_TRUE(is_armed(5000)) << u.body;
    }
    EXPECT_TRUE(through_cloud(R"({"type":"get_status","get":[{"name":"cputemp"}]})"));
    EXPECT_TRUE(is_armed(5000)) << "the cloud cannot answer in the gateway's place";
    fire(5000);
    expect_log("[ERROR] (arvok) wait ack timeout\n");
    expect_reconnection(10000);

    connect();
    log();
    send(R"({"type":"qlink"})");  // consumed, though there is nothing to say about it
    expect_log("[ERROR] (10001) Arvok AP without this interface\n");
    turn();
    EXPECT_FALSE(is_armed(5000));
    EXPECT_FALSE(has_logged("->"));
}

TEST_F(Link, NegotiationRegistersAndStartsTheKeepalives) {
    connect();
    negotiate();
    EXPECT_TRUE(agent_->is_linked());
    turn();
    EXPECT_TRUE(has_logged(R"({"type":"dev_reg","sequence":2,)"));
    // The deadlines of "dh" and "dev_reg" were armed and taken back: only the first keepalive is to come.
    EXPECT_EQ(around.ever_armed, (std::vector{5000, 10000, 20000, 1000}));
    EXPECT_EQ(around.armed.size(), 1u);

    log();
    for (int sequence = 3; sequence < 6; sequence++) {
        fire(sequence == 3 ? 1000 : 5000);
        const std::string number = R"(,"sequence":)" + std::to_string(sequence);
        EXPECT_EQ(receive(), R"({"type":"keepalive")" + number + R"(,"mac":"021122334455"})");
        EXPECT_TRUE(is_armed(20000));
        EXPECT_FALSE(is_armed(5000));
        send(R"({"type":"ack")" + number + "}");
        pump([] { return is_armed(5000); });
        EXPECT_FALSE(is_armed(20000));
    }
    turn();
    EXPECT_EQ(log(), "");  // keepalives and their acknowledgements are not logged, nor do they bring reports

    send(R"({"type":"ack","sequence":2})");
    expect_log("[ERROR] update_wan_info failed\n[ERROR] qzcap_list_laninfo failed");  // with no platform here
    log();
    send(R"({"type":"ack","sequence":2})");
    expect_log("<-");
    EXPECT_FALSE(has_logged("[ERROR]"));

    fire(5000);
    EXPECT_EQ(receive(), R"({"type":"keepalive","sequence":7,"mac":"021122334455"})");
    fire(20000);
    EXPECT_TRUE(has_logged("[ERROR] (arvok) wait keepalive ack timeout\n"));
    expect_reconnection(10000);
    connect();
    log();
    send(R"({"type":"ack","sequence":7})");  // must not pass for an acknowledgement on the new connection
    expect_log("<-");
}

TEST_F(Link, InstallationsThatDoNotEndAreBounded) {
    const auto upgrade = [this](const std::string &url) {
        const json::value reply = through_cloud(R"({"type":"cfg","set":{"upgrade_client":{"downurl":")" +
                                                url + R"(","fileSize":1,"chksum":""}}})");
        const json::document said = json::parse(reply.text());
        return std::string(said["errmsg"].text().value_or(""));
    };
    agent_->set_sync(true);
    ubus_request ended{};
    for (int round = 0; round < 2; round++) {
        while (around.installations.size() < 16) {
            EXPECT_EQ(upgrade(""), "qzcap_install_app failed");  // which does not count
            ASSERT_EQ(upgrade("u"), "");
        }
        EXPECT_EQ(upgrade("u"), "too many");
        EXPECT_EQ(around.installations.size(), 16u);
        ended.priv = around.installations.back();
        around.installations.pop_back();
        around.installed(&ended, nullptr);
    }
    agent_.reset();
    for (void *each : around.installations) {
        ended.priv = each;
        around.installed(&ended, nullptr);
    }
}

TEST_F(Link, ASecondNegotiationForgetsTheKey) {
    connect();
    negotiate();
    send(R"({"type":"keyngack","keymode":"dh"})");
    key_.reset();
    EXPECT_TRUE(receive().starts_with(R"({"type":"dh","sequence":3,)"));
}

TEST_F(Link, AFifthNegotiationInTenSecondsEndsTheConnection) {
    const auto ask = [this] {
        send(R"({"type":"keyngack","keymode":"dh"})");
        return receive();
    };
    for (int connection = 0; connection < 2; connection++) {  // each has its own count
        connect();
        for (int i = 0; i < 4; i++, around.uptime += 3)
            EXPECT_TRUE(contains(ask(), R"("type":"dh")"));
        around.uptime -= 2;  // ten seconds after the first
        EXPECT_TRUE(contains(ask(), R"("type":"dh")"));
        send(R"({"type":"keyngack","keymode":"dh"})");
        expect_log("[ERROR] (arvok) too many key negotiations\n[INFO] (arvok) disconnect fd: ");
        expect_reconnection(10000);
        log();
    }
}

TEST_F(Link, APublicValueOutsideOfTheGroupEndsTheConnection) {
    connect();
    send(R"({"type":"keyngack","keymode":"dh"})");
    receive();
    log();
    send(R"({"type":"dh","data":{"dh_key":"AQ=="}})");
    expect_log("[ERROR] gen_client_dh_aes_key aes key len invalid: -1\n[INFO] (arvok) disconnect fd: ");
    expect_reconnection(10000);
    EXPECT_FALSE(has_logged("dev_reg"));
}

TEST_F(Link, AGatewayThatIsGoneWithoutAWordIsNoticed) {
    connect();
    EXPECT_EQ(dead_peer_options(32768), "1 30 10 3 60000 ");
}

TEST_F(Link, ADhAnswerThatDoesNotFitIsNotConsumed) {
    connect();
    send(R"({"type":"dh","data":{"dh_key":"Aw==","dh_p":""}})");  // nothing was sent that it could echo
    expect_log("[ERROR] invalid dh_p\n");
    send(R"({"type":"keyngack","keymode":"dh"})");
    receive();
    const struct {
        const char *data, *line;
    } rejected[] = {
        {"5", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":5})", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":"Aw==","dh_p":"Aw=="})", "[ERROR] invalid dh_p\n"},
        {R"({"dh_key":"Aw==","dh_g":"Aw=="})", "[ERROR] invalid dh_g\n"},
    };
    for (const auto &r : rejected) {
        log();
        send(R"({"type":"dh","data":)" + std::string(r.data) + "}");
        expect_log(r.line);
        EXPECT_FALSE(agent_->is_linked());
    }
    // An echo of another type is ignored; without a key from it the link goes on in the clear.
    send(R"({"type":"dh","data":{"dh_key":"????","dh_p":7}})");
    const json::document registration = json::parse(receive());
    EXPECT_EQ(registration["type"].text(), "dev_reg");
    EXPECT_EQ(registration["data"]["ipaddr"].text(), "127.0.0.1");
    EXPECT_EQ(registration["data"]["supportMesh"].integer(), 0);
    EXPECT_FALSE(registration["data"]["mapAlmac"]);
}

TEST_F(Link, MessagesThroughTheCloudNeverTouchTheLink) {
    connect();
    log();
    for (const char *message :
         {R"({"type":"keyngack","keymode":"dh"})", R"({"type":"dh","data":{"dh_key":"Aw=="}})",
          R"({"type":"ack","sequence":-1})", R"({"type":"ack","sequence":5})"})
        through_cloud(message);
    EXPECT_TRUE(is_armed(5000));
    EXPECT_EQ(around.armed.size(), 1u);
    EXPECT_EQ(through_cloud(R"({"type":"control","sequence":"7","data":[{"command":"reboot"}]})").text(),
              R"({"type":"ack","sequence":0,"mac":"021122334455","errcode":0,"errmsg":""})");
    turn();
    EXPECT_EQ(log(), "");  // nothing was sent, and actions wait
    agent_->forget_actions();
    agent_->run_actions();
    EXPECT_EQ(log(), "");
    through_cloud(R"({"type":"control","data":[{"command":"reboot"},{"command":"reset"}]})");
    agent_->run_actions();
    EXPECT_EQ(log(), "[ERROR] qzcap_reset failed\n[ERROR] qzcap_reboot failed\n");
}

TEST_F(Link, AReportThatWaitsWhenTheLinkIsLostGoesNowhere) {
    connect();
    negotiate();
    fire(1000);
    log();
    agent_->reporting().roaming_report(json::parse(R"({"roamingreport":[{"mac":"a"}]})").root());
    fire(20000);
    turn();
    EXPECT_TRUE(has_logged("[INFO] (arvok) disconnect"));
    EXPECT_FALSE(has_logged("->"));
    connect();  // whose first message is the key request
}

TEST_F(Link, BeaconElementsAreBoundedAndForgottenWhenTheyEnd) {
    const auto command = [](const char *name, std::size_t id, int seconds = 0) {
        return R"({"command":")" + std::string(name) + R"(","id":")" + std::to_string(id) +
               R"(","band":"2.4G","data":"ZGQ=","persist":)" + std::to_string(seconds) + "}";
    };
    const auto control = [this](const std::string &commands) {
        const json::value reply = through_cloud(R"({"type":"control","data":[)" + commands + "]}");
        return std::string(json::parse(reply.text())["errmsg"].text().value_or(""));
    };
    std::string sending = command("sendvsie", 0, 7);
    for (std::size_t id = 1; id < beacons::sent_max; id++)
        sending += "," + command("sendvsie", id);
    EXPECT_EQ(control(sending), "");
    around.elements.clear();
    EXPECT_EQ(control(command("sendvsie", beacons::sent_max)), "too many");
    EXPECT_EQ(around.elements, "");
    // One that is known makes room for itself, and is what is stopped from then on.
    EXPECT_EQ(control(command("sendvsie", 1, 8) + "," + command("stopvsie", 1)), "");
    EXPECT_EQ(around.elements, "start 64 stop 1 stop 64 ");
    EXPECT_EQ(control(command("stopvsie", 1)), "id not found");
    EXPECT_EQ(control(command("sendvsie", 1)), "");
    fire(7000);
    EXPECT_EQ(control(command("stopvsie", 0)), "id not found");
    EXPECT_EQ(control(command("sendvsie", beacons::sent_max)), "");
}

TEST_F(Link, AListOfBusCallsStopsWhenTheProcessIsToEnd) {
    connect();
    const std::string list =
        R"({"type":"ubus_call","sequence":1,"mac":"x","data":[)"
        R"({"object":"c1","method":"m","message":{}},{"object":"c2","method":"m","message":{}}]})";
    send(list);
    EXPECT_NE(receive().find(R"("data":[{"object":"c1","method":"m"},{"object":"c2","method":"m"}]})"),
              std::string::npos);
    around.looked_up.clear();
    around.ends_at_lookup = true;
    log();
    send(list);
    pump([] { return !around.looked_up.empty(); });
    EXPECT_EQ(around.looked_up, "c1 ");
    EXPECT_FALSE(has_logged("->"));
}

TEST_F(Link, ConnectionOfTheSubscriptionsIsOpenAsLongAsThereAreAny) {
    const auto subscribe = [this](const char *object, int enable) {
        through_cloud(R"({"type":"ubus_subscribe","object":")" + std::string(object) + R"(","enable":)" +
                      std::to_string(enable) + "}");
    };
    EXPECT_EQ(around.bus, "");
    subscribe("a", 1);
    subscribe("b", 1);
    subscribe("a", 0);
    EXPECT_EQ(around.bus, "opened ");
    EXPECT_EQ(heard_, "");
    subscribe("b", 0);
    EXPECT_EQ(around.bus, "opened closed ");
    // What had come for it until then is told; nobody is told anything at the end.
    EXPECT_EQ(heard_, R"({"type":"ubus_notify","sequence":0,"mac":"021122334455",)"
                      R"("object":"b","method":"last","data":{}})");
    heard_.clear();
    subscribe("c1", 1);
    EXPECT_EQ(around.bus, "opened closed ") << "no such object";
    subscribe("a", 1);
    around.looked_up.clear();
    agent_.reset();
    EXPECT_EQ(around.bus, "opened closed opened closed ");
    EXPECT_EQ(around.looked_up, "");
    EXPECT_EQ(heard_, "");
}

TEST_F(Link, SubscriptionsAreBounded) {
    const auto subscribe = [this](std::size_t number, int enable) {
        const json::value reply =
            through_cloud(R"({"type":"ubus_subscribe","object":"s)" + std::to_string(number) +
                          R"(","enable":)" + std::to_string(enable) + "}");
        return std::string(json::parse(reply.text())["errmsg"].text().value_or(""));
    };
    for (std::size_t i = 0; i < 256; i++)
        ASSERT_EQ(subscribe(i, 1), "");
    around.looked_up.clear();
    EXPECT_EQ(subscribe(256, 1), "too many");
    EXPECT_EQ(around.looked_up, "");
    EXPECT_EQ(subscribe(7, 0), "");
    EXPECT_EQ(subscribe(256, 1), "");
}

TEST(FirstSeen, TimesOfActiveHostsAreKeptAndOthersBounded) {
    static std::time_t now;
    now = 100;
    first_seen hosts([] { return now++; });
    EXPECT_EQ(hosts.of("02:AA:00:00:00:01"), 100);
    EXPECT_EQ(hosts.of("02:aa:00:00:00:01"), 100);
    EXPECT_EQ(hosts.of({}), 101);
    EXPECT_EQ(hosts.of({}), 101);
    // More of them than would be kept otherwise, in each of three reports.
    const std::time_t most = first_seen::hosts_max + 100;
    for (int report = 0; report < 3; report++) {
        for (std::time_t i = 0; i < most; i++)
            EXPECT_EQ(hosts.of("h" + std::to_string(i)), 102 + i);
        hosts.forget_others(most);
    }
    // All but the first go, and the ones that were asked for last are still known.
    EXPECT_EQ(hosts.of("H0"), 102);
    hosts.forget_others(1);
    EXPECT_EQ(hosts.of("h0"), 102);
    EXPECT_EQ(hosts.of("h101"), 203);
    const std::time_t next = now;
    EXPECT_EQ(hosts.of("h100"), next);
    EXPECT_EQ(hosts.of("02:AA:00:00:00:01"), next + 1);
}

TEST(RssiQueries, AResultGoesToWhomItIsDueFor) {
    around.uptime = 1000;
    rssi_queries queries;
    queries.begun("02c0ffee0001", rssi_asker::cloud, 60);
    queries.begun("02:C0:FF:EE:00:01", rssi_asker::gateway, 1);
    EXPECT_EQ(queries.ended("02C0FFEE0002"), std::nullopt);
    EXPECT_EQ(queries.ended("02C0FFEE0001"), rssi_asker::gateway);
    EXPECT_EQ(queries.ended("02C0FFEE0001"), rssi_asker::cloud);
    EXPECT_EQ(queries.ended("02C0FFEE0001"), std::nullopt);

    // One that never has its result takes none of a later one's.
    queries.begun("02C0FFEE0001", rssi_asker::cloud, 2);
    around.uptime += 7;
    EXPECT_EQ(queries.ended("02C0FFEE0001"), rssi_asker::cloud);
    queries.begun("02C0FFEE0001", rssi_asker::cloud, 2);
    around.uptime += 8;
    EXPECT_EQ(queries.ended("02C0FFEE0001"), std::nullopt);
    queries.begun("02C0FFEE0001", rssi_asker::gateway, 1);
    EXPECT_EQ(queries.ended("02C0FFEE0001"), rssi_asker::gateway);
}

}  // namespace
}  // namespace arvok::gateway
