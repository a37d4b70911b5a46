// The gateway search, against real routing and ARP tables: the test makes itself a network namespace.

#include "base/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "base/descriptor.h"
#include "base/text.h"
#include "own_network.h"

namespace arvok {
namespace {

class Gateway : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(enter_own_network()) << "no network namespaces here";
        for (const std::string name : {"br-lan", "wan0"})
            ip("link add " + name + " up type veth peer name " + name + "-peer && ip link set " + name +
               "-peer up");
        ip("addr add 192.168.1.2/24 dev br-lan && ip addr add 10.0.0.2/24 dev wan0");
    }
    void TearDown() override {
        ip("route flush table main proto static");
        ip("neigh flush all nud permanent");
    }
    static void ip(const std::string &args) { ASSERT_EQ(std::system(("ip " + args).c_str()), 0) << args; }
    static void route(const std::string &args, const std::string &family = "") {
        ip(family + "route add " + args + " proto static");
    }
};

TEST_F(Gateway, BridgesAndOneAddressCanBePassedOver) {
    EXPECT_EQ(gateway_address(false, ""), "");
    EXPECT_EQ(gateway_mac(false, ""), "");
    route("default via 192.168.1.1 dev br-lan metric 10");
    EXPECT_EQ(gateway_address(true, ""), "");
    ip("neigh add 192.168.1.77 lladdr 02:00:00:00:00:77 dev br-lan nud permanent");
    EXPECT_EQ(gateway_mac(false, ""), "020000000077");  // the gateway has no entry
    ip("neigh add 192.168.1.1 lladdr 02:aa:bb:cc:dd:01 dev br-lan nud permanent");
    EXPECT_EQ(gateway_mac(false, ""), "02AABBCCDD01");
    route("default via 10.0.0.1 dev wan0 metric 20");
    EXPECT_EQ(gateway_address(false, ""), "192.168.1.1");
    EXPECT_EQ(gateway_address(true, ""), "10.0.0.1");
    EXPECT_EQ(gateway_address(false, "192.168.1.1"), "10.0.0.1");
    EXPECT_EQ(gateway_address(false, "10.0.0.1"), "192.168.1.1");
}

TEST_F(Gateway, OtherRoutesAreNotTakenForTheAnswer) {
    ip("rule add from 10.0.0.2 table 100");
    ip("route add 198.51.100.0/24 dev wan0 table 100");  // without a gateway, and dumped first
    route("default via 10.0.0.1 dev wan0");
    EXPECT_EQ(gateway_address(false, ""), "10.0.0.1");
    EXPECT_EQ(gateway_address(false, "10.0.0.1"), "");
    ip("route flush table 100");
    ip("rule del from 10.0.0.2 table 100");
}

// In a namespace of its own IPv6 has no other routes than those of the kernel.
TEST_F(Gateway, AnIpv6RouteIsNoIpv4Gateway) {
    ip("addr add fd00::2/64 dev wan0 nodad");
    route("default via fd00::1 dev wan0", "-6 ");
    EXPECT_EQ(gateway_address(false, ""), "");
    route("default via 10.0.0.1 dev wan0");
    EXPECT_EQ(gateway_address(false, ""), "10.0.0.1");
    EXPECT_EQ(gateway_address(false, "10.0.0.1"), "");
    ip("-6 route flush table main proto static");
}

// Another socket of this process that holds its port number makes the kernel choose one for the search, which
// then cannot tell the answer's first part from its last and takes all of them, as far as they fit.
TEST_F(Gateway, AnAnswerInPartsIsTakenAsFarAsItFits) {
    descriptor other(socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_pid = static_cast<unsigned>(getpid());
    ASSERT_EQ(bind(other.get(), reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    route("default via 10.0.0.1 dev wan0");
    EXPECT_EQ(gateway_address(false, ""), "10.0.0.1");
    for (int i = 0; i < 120; i++)
        route("172.16." + std::to_string(i) + ".0/24 via 10.0.0.9 dev wan0");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(gateway_address(false, ""), "");
    EXPECT_TRUE(contains(::testing::internal::GetCapturedStderr(), "error in received packet"));
    other.reset();
    EXPECT_EQ(gateway_address(false, ""), "10.0.0.1");
}

TEST(Address, IsTheLocalEndOrNothing) {
    EXPECT_EQ(local_address(-1), "");
    const descriptor udp(socket(AF_INET, SOCK_DGRAM, 0)), local(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(9);
    inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
    ASSERT_EQ(connect(udp.get(), reinterpret_cast<sockaddr *>(&peer), sizeof peer), 0);
    EXPECT_EQ(local_address(udp.get()), "127.0.0.1");
    EXPECT_EQ(local_address(local.get()), "");
}

TEST(Address, TextsAreChecked) {
    const struct {
        bool (*check)(std::string_view);
        std::vector<std::string_view> good, bad;
    } cases[] = {
        {is_port, {"1", "65535", "+80", " 80"}, {"0", "65536", "80x", "", "-1", "99999999999999999999"}},
        {is_domain, {"a..b", "abc-", "9"}, {"-abc", ".a", "", "a_b", "\xe4"}},
        {is_ipv4_address, {"10.0.0.3"}, {"10.0.0.300", "10.0.0", "::1", ""}},
    };
    for (const auto &c : cases) {
        for (const std::string_view text : c.good)
            EXPECT_TRUE(c.check(text)) << text;
        for (const std::string_view text : c.bad)
            EXPECT_FALSE(c.check(text)) << text;
    }
}

}  // namespace
}  // namespace arvok
