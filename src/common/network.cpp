#include "common/network.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/handle.h"
#include "common/identity.h"
#include "common/text.h"

namespace arvok {
namespace {

constexpr std::size_t dump_size = 4096;
constexpr std::uint32_t dump_sequence = 1;

struct owned_fd {
    int fd;
    explicit owned_fd(int f) : fd(f) {}
    ~owned_fd() {
        if (fd >= 0)
            close(fd);
    }
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
};

struct route_dump {
    alignas(nlmsghdr) unsigned char bytes[dump_size];
    std::size_t len;
};

// Asks the kernel for all routes. False after one line on standard error when it does not tell.
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

// Reads the gateway of one route message into `gateway`, which is cleared first. True when it is the answer:
// a gateway through a known interface, neither of which is to be passed over.
bool read_route(const unsigned char *attrs, std::size_t len, int skip_bridge, const char *exclude,
                char *gateway) {
    gateway[0] = '\0';
    while (len >= sizeof(rtattr)) {
        rtattr attr;
        std::memcpy(&attr, attrs, sizeof attr);
        if (attr.rta_len < sizeof attr || attr.rta_len > len)
            return false;
        const unsigned char *value = attrs + RTA_LENGTH(0);
        const std::size_t value_len = attr.rta_len - RTA_LENGTH(0);
        if (attr.rta_type == RTA_GATEWAY && value_len >= sizeof(in_addr)) {
            inet_ntop(AF_INET, value, gateway, INET_ADDRSTRLEN);
            if (exclude && std::strcmp(exclude, gateway) == 0)
                return false;
        } else if (attr.rta_type == RTA_OIF && value_len >= sizeof(std::uint32_t) && gateway[0]) {
            char interface[IF_NAMESIZE];
            std::uint32_t index;
            std::memcpy(&index, value, sizeof index);
            if (if_indextoname(index, interface))
                return !(skip_bridge && std::strncmp(interface, "br", 2) == 0);
        }
        const std::size_t step = RTA_ALIGN(attr.rta_len);
        if (step >= len)
            return false;
        attrs += step;
        len -= step;
    }
    return false;
}

void find_gateway(const route_dump &dump, int skip_bridge, const char *exclude, char *gateway) {
    constexpr std::size_t attrs_offset = NLMSG_LENGTH(sizeof(rtmsg));
    for (std::size_t at = 0; dump.len - at >= attrs_offset;) {
        nlmsghdr header;
        std::memcpy(&header, dump.bytes + at, sizeof header);
        if (header.nlmsg_len < attrs_offset || header.nlmsg_len > dump.len - at)
            return;
        if (read_route(dump.bytes + at + attrs_offset, header.nlmsg_len - attrs_offset, skip_bridge, exclude,
                       gateway))
            return;
        const std::size_t step = NLMSG_ALIGN(header.nlmsg_len);
        if (step >= dump.len - at)
            return;
        at += step;
    }
}

}  // namespace

const char *_get_socket_ip(int fd) {
    static char ip[INET_ADDRSTRLEN];
    ip[0] = '\0';
    sockaddr_in local{};
    socklen_t len = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len) == 0 && local.sin_family == AF_INET)
        inet_ntop(AF_INET, &local.sin_addr, ip, sizeof ip);
    return ip;
}

const char *_get_gateway_ip(int skip_bridge, const char *exclude) {
    static char gateway[INET_ADDRSTRLEN];
    gateway[0] = '\0';
    const owned_fd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (sock.fd < 0) {
        std::perror("create socket failed");
        return gateway;
    }
    route_dump dump;
    if (request_routes(sock.fd) && receive_routes(sock.fd, dump))
        find_gateway(dump, skip_bridge, exclude, gateway);
    return gateway;
}

const char *_get_gateway_mac(int skip_bridge, const char *exclude) {
    static char mac[32];
    const char *gateway = _get_gateway_ip(skip_bridge, exclude);
    mac[0] = '\0';
    const handle<std::FILE, &std::fclose> arp(std::fopen("/proc/net/arp", "re"));
    if (!arp)
        return mac;
    char line[1024], ip[16];
    while (std::fgets(line, sizeof line, arp.get())) {
        if (std::strstr(line, "IP address"))
            continue;
        if (std::sscanf(line, "%15s %*x %*x %31s", ip, mac) == 2 && std::strcmp(ip, gateway) == 0)
            break;
    }
    _convert_mac(mac);
    return mac;
}

int is_valid_domain(const char *s) {
    if (!s || !std::isalnum(static_cast<unsigned char>(*s)))
        return 0;
    for (s++; *s; s++)
        if (!std::isalnum(static_cast<unsigned char>(*s)) && *s != '-' && *s != '.')
            return 0;
    return 1;
}

int is_valid_ip(const char *s) {
    in_addr addr;
    return s && inet_pton(AF_INET, s, &addr) > 0;
}

int is_valid_port(const char *s) {
    if (!s || !*s)
        return 0;
    char *end;
    const long port = std::strtol(s, &end, 10);
    return *end == '\0' && port >= 1 && port <= 65535;
}

}  // namespace arvok
