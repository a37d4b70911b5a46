#pragma once
/// A network of the calling process's own, so that a test may use any port, route or interface name.

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <utility>

namespace arvok {

/// Moves this process, which must have one thread, into a new network namespace with its loopback up; an
/// ordinary user becomes root of a user namespace first. False where the kernel allows neither.
inline bool enter_own_network() {
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    } else if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

/// How this process's connection to that port notices that its peer has gone: keepalive and its three times,
/// and the longest that sent bytes may be unacknowledged.
inline std::string dead_peer_options(int port) {
    std::string values;
    for (int fd = 3; fd < 64; fd++) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) != 0 || ntohs(peer.sin_port) != port)
            continue;
        const std::pair<int, int> options[] = {{SOL_SOCKET, SO_KEEPALIVE},
                                               {IPPROTO_TCP, TCP_KEEPIDLE},
                                               {IPPROTO_TCP, TCP_KEEPINTVL},
                                               {IPPROTO_TCP, TCP_KEEPCNT},
                                               {IPPROTO_TCP, TCP_USER_TIMEOUT}};
        for (const auto &[level, name] : options) {
            int value = 0;
            socklen_t length = sizeof value;
            getsockopt(fd, level, name, &value, &length);
            values += std::to_string(value) + " ";
        }
    }
    return values;
}

}  // namespace arvok
