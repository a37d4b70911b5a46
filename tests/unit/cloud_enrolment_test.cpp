// The handshake where a peer does not lead it, the retry policy on its numbers, the choice of the address.

#include <algorithm>
#include <filesystem>

#include "cloud_fixture.h"

namespace arvok::cloud {
namespace {

using texts = std::vector<std::string>;

std::string boot_ack(const char *servers) {
    return ack("Boot", R"("Result":0,"BizPlat":[)" + std::string(servers) + "]");
}

TEST_F(Cloud, TheBootstrapServersAnswerLeadsToABusinessServer) {
    machine.names["a1"] = {{"100.64.0.4"}};
    bootstrap();
    send(boot_ack(R"({"ServerAddr":"a1","ServerPort":8088},{"ServerAddr":"a2","ServerPort":2},)"
                  R"({"ServerAddr":"a3","ServerPort":3},{"ServerAddr":"a4","ServerPort":4},)"
                  R"({"ServerAddr":"a5","ServerPort":5},{"ServerAddr":"a6","ServerPort":6})"));
    EXPECT_EQ(accept_one(), "100.64.0.4");
    EXPECT_EQ(machine.stored, texts{"bss.example:8088|a1:8088|a2:2,a3:3,a4:4,a5:5||"});
    EXPECT_EQ(client_->server_text(), "a1:8088");
    receive();

    // A list that the platform has asked for is taken, new or not. What is invalid leaves its place as it
    // was; the places behind the last are emptied. The server at hand can be the business server, too.
    const auto ask_for_list = [&](const std::string &reply) {
        answer_challenge();
        send(ack("Activate", R"("Result":0,"DevToken":"t","DevID":"d")"));
        receive();
        answer_challenge();
        become_connected();
        EXPECT_EQ(ask("RequestConnectBSS"), R"({"Ack":"RequestConnectBSS","ID":"1","Result":0})");
        advance(1000);
        EXPECT_EQ(accept_one(), "100.64.0.9");
        EXPECT_TRUE(contains(receive(), R"("bootstrap":"2")"));
        send(reply);
    };
    ask_for_list(boot_ack(R"(5,{"ServerAddr":"x","ServerPort":"7"},{"ServerAddr":"x_","ServerPort":7})"));
    EXPECT_EQ(accept_one(), "100.64.0.4");
    EXPECT_EQ(machine.stored.back(), "bss.example:8088|a1:8088|a2:2,a3:3||");
    receive();
    ask_for_list(boot_ack(R"({"ServerAddr":"bss.example","ServerPort":8088})"));
    EXPECT_EQ(receive(), get_challenge);
    EXPECT_EQ(machine.stored.back(), "bss.example:8088|bss.example:8088|||");

    // What is not new is no reason to go there when nobody has asked, nor is a name that would have to be
    // cut.
    bootstrap();
    send(boot_ack(R"({"ServerAddr":"b","ServerPort":65536},{"ServerAddr":"a23456789.123456789.123456789.12",)"
                  R"("ServerPort":80})"));
    expect_reconnection(9000000);
    EXPECT_TRUE(contains(log(), "[INFO] abi[1]:    :\n[INFO] abi server is not updated\n"));
}

TEST_F(Cloud, TheDeviceIsLookedAtAnewForEachConnect) {
    machine.serial = "S123456789012345678901234567890123";  // 34 characters
    activate();
    EXPECT_TRUE(contains(log(), R"("SN":"S123456789012345678901234567890123","CKey":")"));
    machine.serial.pop_back();
    activate();
    EXPECT_TRUE(contains(log(), R"("SN":"FFFFFFFFFFFFFFFFFFFFFF021122334455","CKey":")"));
    const std::string first_key = key_;
    prove();
    EXPECT_NE(key_, first_key);
    EXPECT_FALSE(contains(log(), "PPPoEName"));
    for (const char *name : {"before", "after"}) {
        machine.user = machine.vendor = name;
        cache_->refresh_wan();
        client_->wan_down();
        client_->wan_up();
        accept_one();
        receive();
        const std::string again = answer_challenge();
        EXPECT_TRUE(contains(again, format(R"("Vendor":"%s")", name))) << again;
        EXPECT_TRUE(contains(again, format(R"("PPPoEName":"%s","QZEI":"")", name))) << again;
    }
}

// --- the retry policy ---

TEST_F(Cloud, FiveDelaysDouble) {
    int lowest[5], highest[5];
    std::fill(lowest, lowest + 5, 1 << 30);
    std::fill(highest, highest + 5, 0);
    std::size_t at = 0;  // in the log
    const auto seconds_behind = [&](const std::string &line) {
        pump([&] { return log_text().find(line, at) != std::string::npos; });
        at = log_text().find(line, at) + line.size();
        return std::atoi(log_text().c_str() + at);
    };
    make_client().start();  // nobody knows the bootstrap server's name
    for (int round = 0; round < 60; round++) {
        for (int count = 0; count < 5; count++) {
            const int delay =
                seconds_behind(format("[ERROR] (cloud) resolv server failed\n"
                                      "[INFO] (cloud) retry count %d cycle 1\n"
                                      "[INFO] (cloud) reconnect current server after ",
                                      count + 1));
            lowest[count] = std::min(lowest[count], delay);
            highest[count] = std::max(highest[count], delay);
            if (delay > 0) {  // else it is over
                expect_armed(client_->reconnect_remaining(), delay * 1000);
                wait_for_reconnection();
            }
        }
        seconds_behind("[INFO] (cloud) reconnect bss server after 150 minutes\n");
        expect_armed(client_->reconnect_remaining(), 9000000);
        EXPECT_TRUE(contains(client_->status_words(), "，平台域名解析失败，等待"));
        wait_for_reconnection();
    }
    const int ends[] = {0, 90, 180, 360, 720, 1440};
    for (int count = 0; count < 5; count++) {
        const int width = ends[count + 1] - ends[count];
        EXPECT_TRUE(lowest[count] >= ends[count] && lowest[count] < ends[count] + width / 5) << count;
        EXPECT_TRUE(highest[count] < ends[count + 1] && highest[count] > ends[count + 1] - width / 5)
            << count;
    }
}

TEST_F(Cloud, AfterFiveRetriesAnotherAddressAndInTheEndTheBootstrapServer) {
    machine.names = {{"abi.example", {{"100.64.0.1", "100.64.0.2"}}}, {"bss.example", {{"100.64.0.9"}}}};
    machine.abi = "abi.example:8088";
    machine.token = machine.id = "known";
    make_client().start();
    // Connections to one address, each ended by this side. Returns what follows the last in the log.
    const std::string broken = "[ERROR] (cloud) tcp connection broken\n";
    const auto fail_at = [&](const char *address, int times) {
        for (int failure = 1;; failure++) {
            EXPECT_EQ(accept_one(), address);
            log();
            shutdown(peer_, SHUT_RDWR);
            expect_log(broken);
            if (failure == times)
                return log().substr(broken.size());
            wait_for_reconnection();
        }
    };
    // A success in between takes the failures away.
    EXPECT_TRUE(fail_at("100.64.0.1", 3).starts_with("[INFO] (cloud) retry count 3 cycle 1\n"));
    wait_for_reconnection();
    accept_one();
    receive();
    answer_challenge();
    become_connected();
    client_->wan_down();
    client_->wan_up();
    const std::string none_left = "[INFO] has not unused abi server\n[INFO] (cloud) ";
    for (int round = 1; round <= 3; round++) {
        EXPECT_TRUE(fail_at("100.64.0.1", 6).starts_with("[INFO] (cloud) change abi server addr\n"));
        expect_armed(client_->reconnect_remaining(), 10);
        const std::string lines = fail_at("100.64.0.2", 6);
        if (round == 3) {
            EXPECT_TRUE(lines.starts_with(none_left + "reconnect bss server\n")) << lines;
            break;
        }
        EXPECT_TRUE(lines.starts_with(none_left + "reconnect abi server after 150 minutes\n")) << lines;
        // How much of the first second has gone by now, releases of the loop tell differently.
        const std::string words = client_->status_words();
        EXPECT_TRUE(words.starts_with("已激活，TCP连接断开，等待89") ||
                    words.starts_with("已激活，TCP连接断开，等待9000"));
        wait_for_reconnection();
    }
    expect_armed(client_->reconnect_remaining(), 10);
    EXPECT_EQ(client_->server_text(), "bss.example:8088");  // the next attempt's
    EXPECT_EQ(machine.stored, texts(2, "bss.example:8088|abi.example:8088|||"));
    EXPECT_EQ(accept_one(), "100.64.0.9");
    EXPECT_TRUE(contains(receive(), R"("bootstrap":"0")"));
}

TEST_F(Cloud, WhatTheNetworkOrTheLoopDoesNotTakeIsRetried) {
    machine.abi = "172.32.0.1:8088";  // there is no route in this network
    make_client().start();
    expect_log("[ERROR] (cloud) create socket failed: Network is unreachable\n[INFO] (cloud) retry count 1 ");
    EXPECT_TRUE(client_->status_words().starts_with("未激活，创建套接字失败，等待"));
    EXPECT_EQ(client_->server_text(), "172.32.0.1:8088");

    // A full task pipe loses neither the end of a look-up nor the connection's timers.
    connect_fully();
    const auto fill = [&] {
        while (queue_->post([] {})) {
        }
    };
    fill();
    advance(100000);
    expect_log("[INFO] (cloud) retry count 1 cycle 1\n");
    fill();
    wait_for_reconnection();
    accept_one();
    EXPECT_EQ(receive(), get_challenge);
}

// --- addresses ---

TEST_F(Cloud, OneLookUpIsUnderWayAtATime) {
    machine.names["bss.example"] = {{"100.64.0.9"}};
    make_client();
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const auto before = threads();
    look_up.lock();
    client_->start();
    EXPECT_EQ(client_->status_words(), "平台域名解析中");
    client_->wan_up();
    wait_for_reconnection();
    expect_log("[INFO] (cloud) resolving\n");
    client_->wan_up();  // what this arms does not cut the new connection
    look_up.unlock();
    accept_one();
    EXPECT_EQ(client_->reconnect_remaining(), -1);
    EXPECT_EQ(machine.asked.size(), 1u);

    // A look-up that ends after the client tells nobody, and what it worked on goes with it.
    make_client();
    look_up.lock();
    client_->start();
    end_client();
    log();
    look_up.unlock();
    expect_log("[INFO] bss_ip[0]: 100.64.0.9:8088\n");
    pump([&] { return threads() <= before; });
    EXPECT_TRUE(log().ends_with("[INFO] bss_ip[0]: 100.64.0.9:8088\n"));
}

TEST_F(Cloud, TheBootstrapServersAddressesAreTriedInTurn) {
    resolution r;
    r.next = target::bootstrap;
    r.bootstrap = {"bss", "8088"};
    machine.names["bss"].addresses = {
        "0.1.1.1",     "10.1.1.1",        "127.0.0.1", "172.16.0.1",      "172.31.9.9",  "169.254.1.1",
        "192.168.3.4", "255.255.255.255", "192.0.2.9", "198.51.100.9",    "203.0.113.9", "172.32.0.1",
        "100.64.0.1",  "224.0.0.1",       "192.0.3.1", "255.255.255.254", "172.15.0.255"};
    for (const char *host :
         {"172.32.0.1", "100.64.0.1", "224.0.0.1", "192.0.3.1", "255.255.255.254", "172.32.0.1"}) {
        r.run();
        EXPECT_TRUE(r.found);
        EXPECT_EQ(r.current, (server{host, "8088"}));
    }
    EXPECT_EQ(machine.asked.size(), 2u);
    EXPECT_TRUE(
        contains(log(), "[INFO] getaddrinfo skip 203.0.113.9 (bss)\n[INFO] bss_ip[0]: 172.32.0.1:8088\n"));
    const std::tuple<name_answer, bool, const char *> cases[] = {
        {{{"192.168.1.1", "10.0.0.1"}}, false, "[INFO] getaddrinfo skip 10.0.0.1 (bss)\n"},
        {{{"100.64.0.1"}, 15}, false, "[ERROR] resolv bss: \"bss\" timeout: 15s\n"},
        {{{"100.64.0.1"}, 14}, true, "[INFO] bss_ip[0]: 100.64.0.1:8088\n"},
    };
    for (const auto &[answer, found, line] : cases) {
        r.forget_addresses();
        machine.names["bss"] = answer;
        r.run();
        EXPECT_EQ(r.found, found) << line;
        EXPECT_TRUE(log().ends_with(line)) << line;
    }
}

TEST_F(Cloud, BusinessServersShareFiveAddresses) {
    resolution r;
    r.next = target::business;
    r.business = {{{"a", "1"}, {"gone", "2"}, {"b", "3"}, {"slow", "4"}, {"c", "5"}}};
    machine.names = {{"a", {{"100.64.0.2", "10.0.0.1", "100.64.0.3"}}},
                     {"b", {{"100.64.0.4", "100.64.0.5"}}},
                     {"slow", {{"100.64.0.9"}, 20}},
                     {"c", {{"100.64.0.6", "10.9.9.9", "100.64.0.7", "10.8.8.8"}}}};
    const std::pair<const char *, std::size_t> expected[] = {{"100.64.0.2:1", 0},
                                                             {"100.64.0.3:1", 0},
                                                             {"100.64.0.4:3", 2},
                                                             {"100.64.0.5:3", 2},
                                                             {"100.64.0.6:5", 4}};
    for (const auto &[address, index] : expected) {
        r.run();
        EXPECT_EQ(r.current.text(), address);
        EXPECT_EQ(r.server_index, index);
    }
    EXPECT_FALSE(r.untried());
    const std::string text = log();
    EXPECT_TRUE(contains(text, "[ERROR] resolve abi: gone failed: Name or service not known\n"));
    EXPECT_TRUE(contains(text, "[ERROR] resolve abi: slow timeout: 20s\n[INFO] abi_ip[4]: 100.64.0.6:5\n"));
    r.run();
    EXPECT_TRUE(r.untried());
    EXPECT_EQ(machine.asked.size(), 10u);  // every name is looked up, also when there is no room left
    r.forget_addresses();
    r.business.fill({});
    r.run();
    EXPECT_FALSE(r.found);
}

TEST(Servers, AreReadFromText) {
    const std::string fits(31, 'h');
    const struct {
        std::string text, host, port;
        bool valid = false;
    } rows[] = {
        {"bss.example:8088", "bss.example", "8088", true},
        {"100.64.0.1: 80 rest", "100.64.0.1", "80", true},
        {fits + ":1", fits, "1", true},
        {fits + "h:1", fits + "h", "1"},  // cut, these would be others
        {"host:0008088", "host", "0008088", true},
        {"host:00080880", "host", "00080880"},
        {"host:", "host", ""},
        {":8088", "", ""},
        {"bad_name:1", "bad_name", "1"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(parse_server(row.text), (server{row.host, row.port})) << row.text;
        EXPECT_EQ(is_valid(parse_server(row.text)), row.valid) << row.text;
    }
}

}  // namespace
}  // namespace arvok::cloud
