#pragma once
/// A network of the calling process's own, so that a test may use any port, route or interface name.

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

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

}  // namespace arvok
