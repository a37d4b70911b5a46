// The gateway search, against real routing and ARP tables: the test makes itself a network namespace.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "common/network.h"
#include "own_network.h"

namespace arvok {
namespace {

class Gateway : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(enter_own_network()) << "no network namespaces here";
        ip("link add br-lan type veth peer name lan1");
        ip("link add wan0 type veth peer name wan1");
        for (const char *name : {"br-lan", "lan1", "wan0", "wan1"})
            ip(std::string("link set ") + name + " up");
        ip("addr add 192.168.1.2/24 dev br-lan");
        ip("addr add 10.0.0.2/24 dev wan0");
    }
    void TearDown() override {
        ip("route flush table main proto static");
        ip("neigh flush all nud permanent");
    }
    static void ip(const std::string &args) { ASSERT_EQ(std::system(("ip " + args).c_str()), 0) << args; }
    static void route(const std::string &args) { ip("route add " + args + " proto static"); }
};

TEST_F(Gateway, NoRouteNoGateway) {
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "");
    EXPECT_STREQ(_get_gateway_ip(1, "10.0.0.1"), "");
    EXPECT_STREQ(_get_gateway_mac(0, nullptr), "");
}

TEST_F(Gateway, BridgesAndOneAddressCanBePassedOver) {
    route("default via 192.168.1.1 dev br-lan metric 10");
    route("default via 10.0.0.1 dev wan0 metric 20");
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "192.168.1.1");
    EXPECT_STREQ(_get_gateway_ip(1, nullptr), "10.0.0.1");
    EXPECT_STREQ(_get_gateway_ip(0, "192.168.1.1"), "10.0.0.1");
    EXPECT_STREQ(_get_gateway_ip(0, "10.0.0.1"), "192.168.1.1");
}

TEST_F(Gateway, OnlyABridgeRouteIsNoAnswerInRouterMode) {
    route("default via 192.168.1.1 dev br-lan");
    EXPECT_STREQ(_get_gateway_ip(1, nullptr), "");
}

TEST_F(Gateway, OtherRoutesAreNotTakenForTheAnswer) {
    ip("rule add from 10.0.0.2 table 100");
    ip("route add 198.51.100.0/24 dev wan0 table 100");  // without a gateway, and dumped first
    route("default via 10.0.0.1 dev wan0");
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "10.0.0.1");
    EXPECT_STREQ(_get_gateway_ip(0, "10.0.0.1"), "");
    ip("route flush table 100");
    ip("rule del from 10.0.0.2 table 100");
}

// Another socket of this process that holds its port number makes the kernel choose one for the search, which
// then cannot tell the answer's first part from its last and takes all of them, as far as they fit.
TEST_F(Gateway, AnAnswerInPartsIsTakenAsFarAsItFits) {
    const int other = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_pid = static_cast<unsigned>(getpid());
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    route("default via 10.0.0.1 dev wan0");
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "10.0.0.1");
    for (int i = 0; i < 120; i++)
        route("172.16." + std::to_string(i) + ".0/24 via 10.0.0.9 dev wan0");
    ::testing::internal::CaptureStderr();
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "");
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("error in received packet"), std::string::npos);
    close(other);
    EXPECT_STREQ(_get_gateway_ip(0, nullptr), "10.0.0.1");
}

TEST_F(Gateway, MacComesFromTheArpTableOrItsLastEntry) {
    route("default via 192.168.1.1 dev br-lan");
    ip("neigh add 192.168.1.77 lladdr 02:00:00:00:00:77 dev br-lan nud permanent");
    EXPECT_STREQ(_get_gateway_mac(0, nullptr), "020000000077");  // the gateway has no entry
    ip("neigh add 192.168.1.1 lladdr 02:aa:bb:cc:dd:01 dev br-lan nud permanent");
    EXPECT_STREQ(_get_gateway_mac(0, nullptr), "02AABBCCDD01");
}

TEST(SocketAddress, IsTheLocalEndOrNothing) {
    EXPECT_STREQ(_get_socket_ip(-1), "");
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(9);
    inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&peer), sizeof peer), 0);
    EXPECT_STREQ(_get_socket_ip(fd), "127.0.0.1");
    close(fd);
    const int local = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_STREQ(_get_socket_ip(local), "");
    close(local);
}

}  // namespace
}  // namespace arvok
