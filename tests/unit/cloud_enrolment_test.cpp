// The handshake step by step, in every way in which a step fails; the retry policy on its numbers; the choice
// of the server's address.

#include <netdb.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include "arvok/app_messages.h"
#include "cloud_fixture.h"
#include "common/identity.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {

std::vector<std::pair<std::string, name_answer>> names;
std::vector<std::string> names_asked;

namespace {
long uptime_offset = 0;
}

}  // namespace arvok

// The name service and the uptime clock of this program. Addresses are not looked up.
extern "C" int getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **found) {
    using namespace arvok;
    name_answer answer;
    in_addr numeric;
    if (inet_pton(AF_INET, host, &numeric) == 1) {
        answer.addresses = {host};
    } else {
        names_asked.emplace_back(host);
        const auto known =
            std::find_if(names.begin(), names.end(), [&](const auto &n) { return n.first == host; });
        if (known == names.end() || hints->ai_family != AF_INET || hints->ai_socktype != SOCK_STREAM)
            return EAI_NONAME;
        answer = known->second;
    }
    uptime_offset += answer.seconds;
    *found = nullptr;
    for (auto at = answer.addresses.rbegin(); at != answer.addresses.rend(); ++at) {
        auto *address = new sockaddr_in{};
        address->sin_family = AF_INET;
        address->sin_port = htons(static_cast<std::uint16_t>(port ? std::atoi(port) : 0));
        inet_pton(AF_INET, at->c_str(), &address->sin_addr);
        auto *entry = new addrinfo{};
        entry->ai_family = AF_INET;
        entry->ai_socktype = SOCK_STREAM;
        entry->ai_addrlen = sizeof *address;
        entry->ai_addr = reinterpret_cast<sockaddr *>(address);
        entry->ai_next = *found;
        *found = entry;
    }
    return 0;
}
extern "C" void freeaddrinfo(addrinfo *list) {
    while (list) {
        addrinfo *next = list->ai_next;
        delete reinterpret_cast<sockaddr_in *>(list->ai_addr);
        delete list;
        list = next;
    }
}
extern "C" int sysinfo(struct sysinfo *info) noexcept {
    const long result = syscall(SYS_sysinfo, info);
    info->uptime += arvok::uptime_offset;
    return static_cast<int>(result);
}

namespace arvok {
namespace {

const std::string challenge = "0123456789abcdef0123456789abcdef";

std::string ack(const char *name, const std::string &members) {
    return R"({"Ack":")" + std::string(name) + R"(")" + (members.empty() ? "" : "," + members) + "}";
}

// --- the handshake ---

enum class leads_to { long_wait_bss, long_wait_abi, retry, ack_timeout };

TEST_F(Cloud, AFailedStepLeadsWhereItShould) {
    const std::string ok = R"("Result":0)", invalid = "[ERROR] (cloud) invalid server msg\n";
    const std::string bad_code = "[ERROR] invalid ChallengeCode\n" + invalid;
    const std::string bad_identity = "[ERROR] invalid DevToken or DevId\n" + invalid;
    const std::string bad_key = "[ERROR] invalid SKey\n" + invalid;
    const struct {
        std::int32_t status;
        std::string reply;
        leads_to next;
        std::string told;  // the status text where a Result is told, else the log lines
    } cases[] = {
        {cc_bootstrap, ack("Boot", R"("Result":3)"), leads_to::long_wait_bss, "平台返回3"},
        {cc_bootstrap, ack("Boot", R"("BizPlat":[])"), leads_to::long_wait_bss, "平台返回-1"},
        {cc_bootstrap, ack("Boot", ok), leads_to::ack_timeout, "[ERROR] invalid BizPlat\n" + invalid},
        {cc_bootstrap, ack("Boot", ok + R"(,"BizPlat":{})"), leads_to::ack_timeout,
         "[ERROR] invalid BizPlat\n" + invalid},
        {cc_bootstrap, ack("Boot", ok + R"(,"BizPlat":[])"), leads_to::ack_timeout,
         "[ERROR] BizPlat is null\n" + invalid},
        {cc_challenge, ack("GetChallengeCode", R"("Result":-1)"), leads_to::long_wait_abi, "平台返回-1"},
        {cc_challenge, ack("GetChallengeCode", R"("Result":"0")"), leads_to::long_wait_abi, "平台返回-1"},
        {cc_challenge, ack("GetChallengeCode", ok), leads_to::ack_timeout, bad_code},
        {cc_challenge, ack("GetChallengeCode", ok + R"(,"ChallengeCode":5)"), leads_to::ack_timeout,
         bad_code},
        {cc_challenge, ack("GetChallengeCode", ok + R"(,"ChallengeCode":")" + challenge.substr(1) + R"(")"),
         leads_to::ack_timeout, bad_code},
        {cc_challenge, ack("GetChallengeCode", ok + R"(,"ChallengeCode":")" + challenge + R"(0")"),
         leads_to::ack_timeout, bad_code},
        {cc_activating, ack("Activate", R"("Result":9)"), leads_to::long_wait_abi, "平台返回9"},
        {cc_activating, ack("Activate", ok), leads_to::ack_timeout, bad_identity},
        {cc_activating, ack("Activate", ok + R"(,"DevToken":"t","DevID":"")"), leads_to::ack_timeout,
         bad_identity},
        {cc_activating, ack("Activate", ok + R"(,"DevToken":1,"DevID":"d")"), leads_to::ack_timeout,
         bad_identity},
        {cc_connecting, ack("Connect", R"("Result":1)"), leads_to::long_wait_abi, "平台返回1"},
        {cc_connecting, ack("Connect", R"("Result":-2)"), leads_to::retry, "平台返回-2"},
        {cc_connecting, ack("Connect", ok), leads_to::ack_timeout, bad_key},
        {cc_connecting, ack("Connect", ok + R"(,"SKey":"0123456789abcde")"), leads_to::ack_timeout, bad_key},
        {cc_connecting, ack("Connect", ok + R"(,"SKey":"0123456789abcdef0")"), leads_to::ack_timeout,
         bad_key},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reply);
        connect(c.status == cc_bootstrap ? cc_bootstrap : cc_challenge);
        cc->status = c.status;
        cc->client_key = _strdup("client key of 16");
        cc->devid = _strdup("id");
        cc->devtoken = _strdup("token");
        cc->activated = c.status == cc_connecting;
        cc->retry_count = 0;
        cc_set_status_text("before");
        log();
        send_bytes(message(c.reply));
        if (c.next == leads_to::ack_timeout) {
            expect_log(c.told);
            EXPECT_TRUE(connected());
            EXPECT_TRUE(cc->ack_timer.pending);
            EXPECT_STREQ(cc->status_text, "before");
            cc_disconnect();
            continue;
        }
        if (c.next == leads_to::retry) {
            pump([] { return !connected(); });
            expect_retry(1);
            EXPECT_EQ(cc->devid, nullptr);
            EXPECT_EQ(cc->devtoken, nullptr);
            EXPECT_EQ(cc->activated, 0);
        } else {
            expect_reconnection(9000000);
            expect_log(c.next == leads_to::long_wait_bss
                           ? "[INFO] (cloud) reconnect bss server after 150 minutes\n"
                           : "[INFO] (cloud) reconnect abi server after 150 minutes\n");
            EXPECT_EQ(cc->retry_count, 0);
        }
        EXPECT_EQ(cc->status_text, c.told);
        EXPECT_EQ(cc->server_kind, server_current);
    }
}

std::string boot_ack(const std::vector<std::string> &servers) {
    std::string list;
    for (const std::string &server : servers) {
        const std::size_t colon = server.find(':');
        list += (list.empty() ? R"({"ServerAddr":")" : R"(,{"ServerAddr":")") + server.substr(0, colon) +
                R"(","ServerPort":)" + server.substr(colon + 1) + "}";
    }
    return ack("Boot", R"("Result":0,"BizPlat":[)" + list + "]");
}

std::string business_servers() {
    std::string all;
    for (const server &one : cc->abi)
        all += one.state == server_empty ? "-;" : std::string(one.host) + ":" + one.port + ";";
    return all;
}

TEST_F(Cloud, TheBootstrapServersAnswerLeadsToABusinessServer) {
    const auto answer = [this](std::int32_t reason, const std::string &reply) {
        connect(cc_bootstrap);
        cc->client_key = _strdup("client key of 16");
        cc->boot_reason = reason;
        log();
        send_bytes(message(reply));
    };
    answer(boot_start, boot_ack({"a1:1", "a2:2", "a3:3", "a4:4", "a5:5", "a6:6"}));
    expect_reconnection(10);
    EXPECT_EQ(business_servers(), "a1:1;a2:2;a3:3;a4:4;a5:5;");
    EXPECT_NE(log_text().find("[INFO] abi[4]:    a5:5\n[ERROR] qzcap set serverinfo failed: "),
              std::string::npos);
    expect_log("[INFO] reconnect abi server\n");
    EXPECT_EQ(cc->server_kind, server_abi);
    EXPECT_EQ(cc->boot_reason, boot_answered);

    // What is invalid leaves its place as it was, and the places behind the last are emptied.
    answer(boot_start, boot_ack({"a1:1", "bad_name:2", "b3:0", "b4:65536"}));
    expect_reconnection(9000000);
    EXPECT_EQ(business_servers(), "a1:1;a2:2;a3:3;a4:4;-;");
    expect_log("[INFO] abi[3]:    a4:4\n");
    expect_log("[INFO] abi server is not updated\n");
    EXPECT_STREQ(cc->status_text, "TCP连接断开");
    EXPECT_EQ(cc->server_kind, server_abi);

    answer(boot_start,
           ack("Boot", R"("Result":0,"BizPlat":[5,{"ServerPort":2},{"ServerAddr":"x"},)"
                       R"({"ServerAddr":"x","ServerPort":"7"},{"ServerAddr":7,"ServerPort":7}])"));
    expect_reconnection(9000000);
    EXPECT_EQ(business_servers(), "a1:1;a2:2;a3:3;a4:4;-;");

    // A list that was asked for is taken, new or not.
    answer(boot_requested, boot_ack({"a1:1", "a2:2"}));
    expect_reconnection(10);
    EXPECT_EQ(business_servers(), "a1:1;a2:2;-;-;-;");

    // The server at hand can be the business server, too.
    answer(boot_start, boot_ack({"bss.example:8088"}));
    EXPECT_EQ(receive(), R"({"RPCMethod":"GetChallengeCode","MAC":"021122334455"})");
    expect_log("[INFO] curr and bss are the same\n");
    EXPECT_EQ(cc->status, cc_challenge);
    EXPECT_EQ(cc->server_kind, server_abi);
    EXPECT_TRUE(cc->ack_timer.pending);
}

TEST_F(Cloud, EnrolmentEndsWithAHeartbeatAndClearCounts) {
    g_ctx.devinfo->sn = qzcap_strdup("S123456789012345678901234567890123");  // 34 characters
    connect(cc_challenge);
    cc->retry_count = 4;
    cc->cycle_count = 2;
    send_bytes(message(ack("GetChallengeCode", R"("Result":0,"ChallengeCode":")" + challenge + R"(")")));
    expect_log(R"("SN":"S123456789012345678901234567890123","CKey":")");
    EXPECT_EQ(cc->status, cc_activating);
    receive_frame();
    const std::string first_key = cc->client_key.get();
    send_bytes(message(ack("Activate", R"("Result":0,"DevID":"id","DevToken":"token")")));
    EXPECT_EQ(receive(), R"({"RPCMethod":"GetChallengeCode","MAC":"021122334455"})");
    EXPECT_EQ(cc->activated, 1);
    send_bytes(message(ack("GetChallengeCode", R"("Result":0,"ChallengeCode":")" + challenge + R"(")")));
    expect_log(R"("DevID":"id","DevToken":"token","CKey":")");
    receive_frame();
    EXPECT_EQ(cc->status, cc_connecting);
    EXPECT_NE(cc->client_key.get(), first_key);
    send_bytes(message(ack("Connect", R"("Result":0,"SKey":"the server's key")")));
    pump([] { return cc->status == cc_connected; });
    EXPECT_EQ(receive(), R"({"RPCMethod":"Heartbeat","MAC":"021122334455","IPAddr":"127.0.0.1"})");
    EXPECT_EQ(cc->retry_count, 0);
    EXPECT_EQ(cc->cycle_count, 0);
    EXPECT_EQ(log_text().find("PPPoEName"), std::string::npos);  // there is no WAN record
    g_ctx.devinfo->sn[33] = '\0';
    cc_disconnect();
    connect(cc_challenge);
    cc->activated = 0;
    send_bytes(message(ack("GetChallengeCode", R"("Result":0,"ChallengeCode":")" + challenge + R"(")")));
    expect_log(R"("SN":"FFFFFFFFFFFFFFFFFFFFFF021122334455","CKey":")");
}

TEST_F(Cloud, TheDeviceIsSentToABootstrapServer) {
    const struct {
        const char *members;
        bool taken;
        const char *bss;
    } cases[] = {
        {R"("Server":"new.example","Port":"9000")", true, "new.example:9000"},
        {R"("Server":"","Port":"")", true, "new.example:9000"},
        {R"("Server":5)", true, "new.example:9000"},
        {R"("Server":"bad_name","Port":"9000")", false, "new.example:9000"},
        {R"("Server":"other.example")", false, "new.example:9000"},
        {R"("Port":"9000")", false, "new.example:9000"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.members);
        connect_fully();
        cc->devid = _strdup("id");
        cc->devtoken = _strdup("token");
        cc->activated = 1;
        cc->boot_reason = boot_answered;
        cc->abi_index = 2;
        cc->resolver.abi_addr[1].state = cc->resolver.bss_addr[1].state = server_untried;
        send_bytes(message(R"({"RPCMethod":"RequestConnectBSS","ID":"1",)" + std::string(c.members) + "}"));
        EXPECT_EQ(receive(),
                  R"({"Ack":"RequestConnectBSS","ID":"1","Result":)" + std::string(c.taken ? "0}" : "-1}"));
        EXPECT_EQ(std::string(cc->bss.host) + ":" + cc->bss.port, c.bss);
        EXPECT_EQ(cc->activated, !c.taken);
        EXPECT_EQ(cc->change_timer.pending, c.taken);
        if (c.taken) {
            expect_armed(cc->change_timer, 1000);
            EXPECT_EQ(cc->server_kind, server_bss);
            EXPECT_EQ(cc->boot_reason, boot_requested);
            EXPECT_EQ(cc->abi_index, 0);
            EXPECT_EQ(cc->resolver.abi_addr[1].state, server_empty);
            EXPECT_EQ(cc->resolver.bss_addr[1].state, server_empty);
            fire(cc->change_timer);
            EXPECT_EQ(cc->status, cc_bootstrap);
            EXPECT_FALSE(connected());
            pump([] { return !cc->resolving; });
        }
        cc_disconnect();
        uloop_timeout_cancel(&cc->reconnect_timer);
        cc->retry_count = 0;
    }
}

// --- the retry policy ---

TEST_F(Cloud, FiveDelaysDouble) {
    const struct {
        int low, high;  // milliseconds
    } ranges[] = {{0, 90000}, {90000, 180000}, {180000, 360000}, {360000, 720000}, {720000, 1440000}};
    int lowest[5], highest[5];
    std::fill(lowest, lowest + 5, 1 << 30);
    std::fill(highest, highest + 5, 0);
    for (seed = 1; seed < 400; seed++) {
        cc->retry_count = 0;
        cc->status = cc_challenge;
        cc->server_kind = server_current;
        for (int count = 0; count < 5; count++) {
            cc_retry();
            EXPECT_EQ(cc->retry_count, count + 1);
            EXPECT_EQ(cc->server_kind, server_current);
            const int left = uloop_timeout_remaining(&cc->reconnect_timer);
            EXPECT_GE(left, ranges[count].low - 100);
            EXPECT_LT(left, ranges[count].high);
            lowest[count] = std::min(lowest[count], left);
            highest[count] = std::max(highest[count], left);
        }
    }
    for (int count = 0; count < 5; count++) {
        const int width = ranges[count].high - ranges[count].low;
        EXPECT_LT(lowest[count], ranges[count].low + width / 10) << count;
        EXPECT_GT(highest[count], ranges[count].high - width / 10) << count;
    }
    expect_log("[INFO] (cloud) retry count 5 cycle 1\n[INFO] (cloud) reconnect current server after ");
    log();
    g_ctx.debug = 1;
    cc->retry_count = 2;
    cc_retry();
    expect_armed(cc->reconnect_timer, 3000);
    const std::string text = log();
    EXPECT_NE(text.find("[DEBUG] interval was "), std::string::npos);
    EXPECT_NE(text.find(", modify interval to 3\n[INFO] (cloud) reconnect current server after 3 seconds\n"),
              std::string::npos);
}

TEST_F(Cloud, AfterFiveRetriesAnotherServerAndInTheEndTheBootstrapServer) {
    const auto exhaust = [this] {
        for (int i = 0; i < 5; i++)
            cc_retry();
        log();
        cc_retry();
        EXPECT_EQ(cc->retry_count, 0);
    };
    cc->status = cc_bootstrap;
    cc->server_kind = server_current;
    exhaust();
    expect_armed(cc->reconnect_timer, 9000000);
    EXPECT_EQ(cc->server_kind, server_bss);
    EXPECT_EQ(cc->cycle_count, 0);
    EXPECT_EQ(log(), "[INFO] (cloud) reconnect bss server after 150 minutes\n");

    cc->status = cc_connecting;
    cc->devid = _strdup("id");
    cc->devtoken = _strdup("token");
    cc->activated = 1;
    cc->resolver.abi_addr[3].state = server_untried;
    for (int cycle = 1; cycle <= 3; cycle++) {
        if (cycle == 1) {
            cc->server_kind = server_current;
            exhaust();
            EXPECT_EQ(log(), "[INFO] (cloud) change abi server addr\n");
            EXPECT_EQ(cc->server_kind, server_abi);
            expect_armed(cc->reconnect_timer, 10);
            cc->resolver.abi_addr[3].state = server_tried;
        }
        cc->server_kind = server_current;
        exhaust();
        if (cycle < 3) {
            EXPECT_EQ(log(),
                      "[INFO] has not unused abi server\n"
                      "[INFO] (cloud) reconnect abi server after 150 minutes\n");
            EXPECT_EQ(cc->cycle_count, cycle);
            EXPECT_EQ(cc->server_kind, server_abi);
            expect_armed(cc->reconnect_timer, 9000000);
            EXPECT_EQ(cc->activated, 1);
        }
    }
    const std::string saved = "[ERROR] qzcap set serverinfo failed: no bus session\n";
    EXPECT_EQ(log(),
              "[INFO] has not unused abi server\n[INFO] (cloud) reconnect bss server\n" + saved + saved);
    EXPECT_EQ(cc->cycle_count, 0);
    EXPECT_EQ(cc->server_kind, server_bss);
    EXPECT_EQ(cc->activated, 0);
    EXPECT_EQ(cc->devid, nullptr);
    EXPECT_EQ(cc->resolver.abi_addr[3].state, server_empty);
    expect_armed(cc->reconnect_timer, 10);
    g_ctx.debug = 1;
    cc_wait_long(server_abi);
    expect_armed(cc->reconnect_timer, 10000);
    expect_log("[DEBUG] (cloud) modify interval to 10s\n");
}

// --- addresses ---

TEST_F(Cloud, TheBootstrapServersAddressesAreTriedInTurn) {
    server_resolver &r = cc->resolver;
    names = {{"bss.example",
              {{"0.1.1.1", "10.1.1.1", "127.0.0.1", "172.16.0.1", "172.31.255.255", "169.254.1.1",
                "192.168.3.4", "255.255.255.255", "192.0.2.9", "198.51.100.9", "203.0.113.9", "172.32.0.1",
                "100.64.0.1", "224.0.0.1", "255.255.255.254", "192.0.3.1", "1.1.1.1"}}}};
    r.kind = server_bss;
    r.bss = cc->bss;
    const char *expected[] = {"172.32.0.1",      "100.64.0.1", "224.0.0.1",
                              "255.255.255.254", "192.0.3.1",  "172.32.0.1"};
    for (const char *address : expected) {
        resolve_server(r);
        EXPECT_EQ(r.result, 0);
        EXPECT_STREQ(r.current.host, address);
        EXPECT_STREQ(r.current.port, "8088");
    }
    EXPECT_EQ(names_asked.size(), 2u);
    expect_log("[INFO] getaddrinfo skip 203.0.113.9 (bss.example)\n[INFO] bss_ip[0]: 172.32.0.1:8088\n");
    expect_log("[INFO] bss_ip[4]: 192.0.3.1:8088\n[INFO] (cloud) resolv server\n");

    forget_addresses(r);
    const struct {
        name_answer answer;
        int result;
        const char *line;
    } cases[] = {
        {{{"192.168.1.1", "10.0.0.1"}}, -1, "[INFO] getaddrinfo skip 10.0.0.1 (bss.example)\n"},
        {{{"100.64.0.1"}, 15}, -1, "[ERROR] resolv bss: \"bss.example\" timeout: 15s\n"},
        {{{"100.64.0.1"}, 14}, 0, "[INFO] bss_ip[0]: 100.64.0.1:8088\n"},
    };
    for (const auto &c : cases) {
        names[0].second = c.answer;
        resolve_server(r);
        EXPECT_EQ(r.result, c.result) << c.line;
        expect_log(c.line);
    }
    names.clear();
    resolve_server(r);
    EXPECT_EQ(r.result, -1);
    expect_log("[ERROR] resolv bss: \"bss.example\" failed: Name or service not known\n");
    r.kind = server_current;
    resolve_server(r);
    EXPECT_EQ(r.result, 0);
}

TEST_F(Cloud, BusinessServersShareFiveAddresses) {
    server_resolver &r = cc->resolver;
    const char *hosts[] = {"a:1", "gone:2", "b:3", "slow:4", "c:5"};
    for (std::size_t i = 0; i < abi_max; i++)
        str_to_server(hosts[i], r.abi[i]);
    names = {{"a", {{"100.64.0.2", "10.0.0.1", "100.64.0.3"}}},
             {"b", {{"100.64.0.4", "100.64.0.5"}}},
             {"slow", {{"100.64.0.9"}, 20}},
             {"c", {{"100.64.0.6", "10.9.9.9", "100.64.0.7", "10.8.8.8"}}}};
    r.kind = server_abi;
    const std::pair<const char *, int> expected[] = {{"100.64.0.2:1", 0},
                                                     {"100.64.0.3:1", 0},
                                                     {"100.64.0.4:3", 2},
                                                     {"100.64.0.5:3", 2},
                                                     {"100.64.0.6:5", 4}};
    for (const auto &[address, index] : expected) {
        resolve_server(r);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(std::string(r.current.host) + ":" + r.current.port, address);
        EXPECT_EQ(r.abi_index, index);
    }
    expect_log("[ERROR] resolve abi: gone failed: Name or service not known\n");
    expect_log("[ERROR] resolve abi: slow timeout: 20s\n[INFO] abi_ip[4]: 100.64.0.6:5\n");
    expect_log("[INFO] getaddrinfo skip 10.8.8.8 (c)\n");
    EXPECT_EQ(names_asked.size(), 5u);
    names[0].second.addresses = {"100.64.1.1", "100.64.1.2", "100.64.1.3", "100.64.1.4", "100.64.1.5"};
    resolve_server(r);
    EXPECT_STREQ(r.abi_addr[4].host, "100.64.1.5");
    EXPECT_EQ(names_asked.size(), 10u);  // every name is looked up, also when there is no room left
    forget_addresses(r);
    r.abi[0].state = server_empty;
    names = {{"a", {{"100.64.0.2"}}}};
    resolve_server(r);
    EXPECT_EQ(r.result, -1);
}

TEST_F(Cloud, AResolutionThatFailsIsRetriedAndASecondOneIsNotBegun) {
    cc->server_kind = server_bss;
    cc_run();
    EXPECT_EQ(cc->resolving, 1);
    cc_run();
    expect_log("[INFO] (cloud) resolving\n");
    pump([] { return !cc->resolving; });
    expect_retry(1);
    EXPECT_STREQ(cc->status_text, "平台域名解析失败");
    EXPECT_EQ(cc->server_kind, server_bss);
    expect_log("[ERROR] (cloud) resolv server failed\n");
    EXPECT_EQ(names_asked, std::vector<std::string>{"bss.example"});
}

TEST_F(Cloud, AReconnectionThatWasArmedDuringALookUpDoesNotCutTheNewConnection) {
    connect(cc_challenge);
    cc_disconnect();
    cc->server_kind = server_current;
    cc_run();
    cc_reconnect(10);  // as the WAN's coming does
    pump(connected);
    EXPECT_FALSE(cc->reconnect_timer.pending);
}

TEST_F(Cloud, WhatTheNetworkOrTheLoopDoesNotTakeIsRetried) {
    cc->resolver.current = {"100.64.0.1", "8088", server_tried};  // there is no route in this network
    cc->server_kind = server_current;
    cc->status = cc_challenge;
    cc_run();
    pump([] { return !cc->resolving; });
    expect_log("[ERROR] (cloud) create socket failed: Network is unreachable\n");
    EXPECT_STREQ(cc->status_text, "创建套接字失败");
    expect_retry(1);

    // A full task pipe loses neither the end of a look-up nor the connection's timers.
    connect_fully();
    while (utask_set(nullptr, nullptr) == 0) {
    }
    fire(cc->heartbeat_timer);
    expect_retry(2);
    cc_run();
    pump([] { return !cc->resolving; });
    EXPECT_TRUE(connected());
}

// --- the state in words ---

TEST_F(Cloud, TheStateIsToldInWords) {
    str_to_server("abi.example:9", cc->abi[1]);
    cc->abi_index = 1;
    cc_set_status_text("TCP连接断开");
    const struct {
        std::int32_t status;
        int wait_ms;  // 0: the reconnect timer is not armed
        std::int32_t resolving, activated;
        const char *words;
    } cases[] = {
        {0, 0, 0, 0, "未连接"},
        {cc_bootstrap, 42700, 1, 0, "未获取到能力平台地址，TCP连接断开，等待42秒后连接"},
        {cc_bootstrap, 0, 0, 0, "获取能力平台地址中"},
        {cc_bootstrap, 0, 1, 0, "平台域名解析中"},
        {cc_challenge, 42700, 0, 1, "已激活，TCP连接断开，等待42秒后连接"},
        {cc_challenge, 9000500, 0, 0, "未激活，TCP连接断开，等待9000秒后连接"},
        {cc_challenge, 0, 0, 1, "获取挑战码中"},
        {cc_challenge, 0, 1, 1, "平台域名解析中"},
        {cc_activating, 42700, 0, 0, "激活中"},
        {cc_connecting, 0, 0, 0, "连接中"},
        {cc_connected, 0, 0, 0, "心跳保活中"},
        {6, 0, 0, 0, "untouched"},
    };
    for (const auto &c : cases) {
        cc->status = c.status;
        cc->resolving = c.resolving;
        cc->activated = c.activated;
        uloop_timeout_cancel(&cc->reconnect_timer);
        if (c.wait_ms)
            uloop_timeout_set(&cc->reconnect_timer, c.wait_ms);
        char used[128], words[128] = "untouched";
        get_cloud_status(used, sizeof used, words, sizeof words);
        EXPECT_STREQ(words, c.words);
        EXPECT_STREQ(used, c.status == cc_bootstrap ? "bss.example:8088" : "abi.example:9");
    }
    cc->resolving = 0;
}

// --- messages of other apps ---

TEST_F(Cloud, AnAppMessageIsCarriedOutWithoutAWaitingSender) {
    const auto answer = [] {
        return std::string(
            text_ptr(blobmsg_format_json_with_cb(g_ctx.blob_buf.head, true, nullptr, nullptr, -1)).get());
    };
    EXPECT_EQ(arvok_postmsg(nullptr, nullptr, nullptr, "postmsg", nullptr), 0);
    EXPECT_EQ(answer(), R"({"FailReason":"invalid msg, not json format","Status":"-1"})");
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "CmdType", "GET_STATUS");
    EXPECT_EQ(arvok_postmsg(nullptr, nullptr, nullptr, "postmsg", message.head), 0);
    EXPECT_EQ(answer().find(R"({"CmdType":"GET_STATUS","SequenceId":"","arvokclt":{"tul":")"), 0u);
    blob_buf_free(&message);
    blob_buf_free(&g_ctx.blob_buf);
}

}  // namespace
}  // namespace arvok
