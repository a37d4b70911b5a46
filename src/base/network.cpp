#include "base/network.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/handle.h"
#include "base/hex.h"

namespace arvok {
namespace {

constexpr std::size_t dump_size = 4096;
constexpr std::uint32_t dump_sequence = 1;

// A quiet peer is asked after half a minute, three times: it is gone when that and what is unacknowledged
// have brought nothing for a minute.
constexpr int keepalive_idle_s = 30;
constexpr int keepalive_interval_s = 10;
constexpr int keepalive_probes = 3;
constexpr int unacknowledged_max_ms = 60000;

struct route_dump {
    alignas(nlmsghdr) unsigned char bytes[dump_size];
    std::size_t len;
};

// Asks the kernel for all IPv4 routes. False after one line on standard error when it does not tell.
bool request_routes(int fd) {
    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = dump_sequence;
    request.header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
    request.route.rtm_family = AF_INET;  // an IPv6 gateway's first bytes would pass for an IPv4 address

    const timeval timeout{.tv_sec = 1, .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (send(fd, &request, request.header.nlmsg_len, 0) < 0) {
        std::perror("send failed");
        return false;
    }
    return true;
}

bool receive_routes(int fd, route_dump &dump) {
    dump.len = 0;
    for (;;) {
        unsigned char *part = dump.bytes + dump.len;
        const ssize_t got = recv(fd, part, dump_size - dump.len, 0);
        if (got < 0) {
            std::perror("error in recv");
            return false;
        }
        const auto len = static_cast<std::size_t>(got);
        nlmsghdr header;
        if (len >= sizeof header)
            std::memcpy(&header, part, sizeof header);
        if (len < sizeof header || header.nlmsg_len < sizeof header || header.nlmsg_len > len ||
            header.nlmsg_type == NLMSG_ERROR) {
            std::perror("error in received packet");
            return false;
        }
        if (header.nlmsg_type == NLMSG_DONE)
            return true;
        dump.len += NLMSG_ALIGN(len) <= dump_size - dump.len ? NLMSG_ALIGN(len) : len;
        if (!(header.nlmsg_flags & NLM_F_MULTI))
            return true;
        if (header.nlmsg_seq == dump_sequence && header.nlmsg_pid == static_cast<std::uint32_t>(getpid()))
            return true;
    }
}

// What one route message tells. It is the answer when it names a gateway through a known interface, neither
// of which is to be passed over.
struct route {
    std::string gateway;
    bool is_answer;
};

route read_route(const unsigned char *attrs, std::size_t len, bool skip_bridge, std::string_view exclude) {
    char gateway[INET_ADDRSTRLEN] = "";
    while (len >= sizeof(rtattr)) {
        rtattr attr;
        std::memcpy(&attr, attrs, sizeof attr);
        if (attr.rta_len < sizeof attr || attr.rta_len > len)
            return {gateway, false};
        const unsigned char *value = attrs + RTA_LENGTH(0);
        const std::size_t value_len = attr.rta_len - RTA_LENGTH(0);
        if (attr.rta_type == RTA_GATEWAY && value_len >= sizeof(in_addr)) {
            inet_ntop(AF_INET, value, gateway, INET_ADDRSTRLEN);
            if (exclude == gateway)
                return {gateway, false};
        } else if (attr.rta_type == RTA_OIF && value_len >= sizeof(std::uint32_t) && gateway[0]) {
            char interface[IF_NAMESIZE];
            std::uint32_t index;
            std::memcpy(&index, value, sizeof index);
            if (if_indextoname(index, interface))
                return {gateway, !(skip_bridge && std::strncmp(interface, "br", 2) == 0)};
        }
        const std::size_t step = RTA_ALIGN(attr.rta_len);
        if (step >= len)
            return {gateway, false};
        attrs += step;
        len -= step;
    }
    return {gateway, false};
}

// The answer's gateway; when no route is the answer, what the last one told.
std::string find_gateway(const route_dump &dump, bool skip_bridge, std::string_view exclude) {
    constexpr std::size_t attrs_offset = NLMSG_LENGTH(sizeof(rtmsg));
    std::string gateway;
    for (std::size_t at = 0; dump.len - at >= attrs_offset;) {
        nlmsghdr header;
        std::memcpy(&header, dump.bytes + at, sizeof header);
        if (header.nlmsg_len < attrs_offset || header.nlmsg_len > dump.len - at)
            break;
        const route found =
            read_route(dump.bytes + at + attrs_offset, header.nlmsg_len - attrs_offset, skip_bridge, exclude);
        gateway = found.gateway;
        if (found.is_answer)
            break;
        const std::size_t step = NLMSG_ALIGN(header.nlmsg_len);
        if (step >= dump.len - at)
            break;
        at += step;
    }
    return gateway;
}

}  // namespace

std::string local_address(int fd) {
    char address[INET_ADDRSTRLEN] = "";
    sockaddr_in local{};
    socklen_t len = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len) == 0 && local.sin_family == AF_INET)
        inet_ntop(AF_INET, &local.sin_addr, address, sizeof address);
    return address;
}

void notice_dead_peer(int fd) {
    const struct {
        int level, name, value;
    } options[] = {
        {SOL_SOCKET, SO_KEEPALIVE, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, keepalive_idle_s},
        {IPPROTO_TCP, TCP_KEEPINTVL, keepalive_interval_s},
        {IPPROTO_TCP, TCP_KEEPCNT, keepalive_probes},
        {IPPROTO_TCP, TCP_USER_TIMEOUT, unacknowledged_max_ms},
    };
    for (const auto &option : options)
        setsockopt(fd, option.level, option.name, &option.value, sizeof option.value);
}

std::string gateway_address(bool skip_bridge, std::string_view exclude) {
    const descriptor sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!sock) {
        std::perror("create socket failed");
        return {};
    }
    route_dump dump;
    if (!request_routes(sock.get()) || !receive_routes(sock.get(), dump))
        return {};
    return find_gateway(dump, skip_bridge, exclude);
}

std::string gateway_mac(bool skip_bridge, std::string_view exclude) {
    const std::string gateway = gateway_address(skip_bridge, exclude);
    const file_handle arp(std::fopen("/proc/net/arp", "re"));
    char line[1024], ip[16], mac[32] = "";
    while (arp && std::fgets(line, sizeof line, arp.get())) {
        if (std::strstr(line, "IP address"))
            continue;
        if (std::sscanf(line, "%15s %*x %*x %31s", ip, mac) == 2 && gateway == ip)
            break;
    }
    return normalised_mac(mac);
}

bool is_domain(std::string_view text) {
    const auto is_alnum = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    return !text.empty() && is_alnum(text.front()) &&
           std::all_of(text.begin(), text.end(), [&](char c) { return is_alnum(c) || c == '-' || c == '.'; });
}

bool is_ipv4_address(std::string_view text) {
    in_addr address;
    return inet_pton(AF_INET, std::string(text).c_str(), &address) > 0;
}

bool is_port(std::string_view text) {
    const std::string digits(text);
    char *end;
    const long port = std::strtol(digits.c_str(), &end, 10);
    return !digits.empty() && *end == '\0' && port >= 1 && port <= 65535;
}

}  // namespace arvok
