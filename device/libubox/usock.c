#include <errno.h>
#include <fcntl.h>
#include <libubox/usock.h>
#include <netdb.h>
#include <poll.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static void close_keeping_errno(int fd) {
    int saved = errno;

    close(fd);
    errno = saved;
}

/* A connect that a signal interrupts goes on by itself: wait for it and take its result. */
static int finish_connect(int fd) {
    struct pollfd poll_fd = {.fd = fd, .events = POLLOUT};
    int error = 0;
    socklen_t len = sizeof(error);

    while (poll(&poll_fd, 1, -1) < 0)
        if (errno != EINTR)
            return -1;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) < 0)
        return -1;
    errno = error;
    return error ? -1 : 0;
}

static int connect_to(int fd, const struct sockaddr *address, socklen_t len) {
    if (connect(fd, address, len) == 0 || errno == EINPROGRESS)
        return 0;
    return errno == EINTR ? finish_connect(fd) : -1;
}

static int open_socket(int type, int family, int kind, int protocol, const struct sockaddr *address,
                       socklen_t len) {
    int flags = (type & USOCK_NOCLOEXEC ? 0 : SOCK_CLOEXEC) | (type & USOCK_NONBLOCK ? SOCK_NONBLOCK : 0);
    int on = 1;
    int fd = socket(family, kind | flags, protocol);

    if (fd < 0)
        return -1;
    if (!(type & USOCK_SERVER)) {
        if (connect_to(fd, address, len) == 0)
            return fd;
    } else {
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (family == AF_INET6 && (type & USOCK_IPV6ONLY))
            setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
        if (bind(fd, address, len) == 0 && (kind != SOCK_STREAM || listen(fd, SOMAXCONN) == 0))
            return fd;
    }
    close_keeping_errno(fd);
    return -1;
}

static int unix_socket(int type, const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};

    if (!path || strlen(path) >= sizeof(address.sun_path)) {
        errno = path ? ENAMETOOLONG : EINVAL;
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    return open_socket(type, AF_UNIX, (type & 0xff) == USOCK_UDP ? SOCK_DGRAM : SOCK_STREAM, 0,
                       (const struct sockaddr *)&address, sizeof(address));
}

static int inet_socket(int type, const char *host, const char *service) {
    bool udp = (type & 0xff) == USOCK_UDP;
    struct addrinfo hints = {
        .ai_family = type & USOCK_IPV6ONLY   ? AF_INET6
                     : type & USOCK_IPV4ONLY ? AF_INET
                                             : AF_UNSPEC,
        .ai_socktype = udp ? SOCK_DGRAM : SOCK_STREAM,
        .ai_flags = (type & USOCK_NUMERIC ? AI_NUMERICHOST | AI_NUMERICSERV : 0) |
                    (type & USOCK_SERVER ? AI_PASSIVE : 0),
    };
    struct addrinfo *found = NULL;
    int fd = -1;

    switch (getaddrinfo(host, service, &hints, &found)) {
        case 0:
            break;
        case EAI_SYSTEM:
            return -1;
        case EAI_MEMORY:
            errno = ENOMEM;
            return -1;
        default:
            errno = EINVAL;
            return -1;
    }
    errno = EADDRNOTAVAIL;
    for (const struct addrinfo *address = found; address && fd < 0; address = address->ai_next)
        fd = open_socket(type, address->ai_family, address->ai_socktype, address->ai_protocol,
                         address->ai_addr, address->ai_addrlen);
    freeaddrinfo(found);
    return fd;
}

int usock(int type, const char *host, const char *service) {
    return type & USOCK_UNIX ? unix_socket(type, host) : inet_socket(type, host, service);
}
