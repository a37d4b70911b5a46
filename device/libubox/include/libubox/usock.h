/*
 * Sockets from a type, a host and a service.
 */
#ifndef LIBUBOX_USOCK_H
#define LIBUBOX_USOCK_H

#define USOCK_TCP 0
#define USOCK_UDP 1

#define USOCK_SERVER 0x0100     ///< bind (with SO_REUSEADDR) and listen instead of connecting
#define USOCK_NOCLOEXEC 0x0200  ///< let programs that this process starts inherit it
#define USOCK_NONBLOCK 0x0400   ///< do not wait for the connection; a failure shows up on the socket
#define USOCK_NUMERIC 0x0800    ///< host and service are numbers, no name is resolved
#define USOCK_IPV6ONLY 0x2000
#define USOCK_IPV4ONLY 0x4000
#define USOCK_UNIX 0x8000  ///< host is the path of a Unix socket, service is not used

/// A connected socket, or a bound one with USOCK_SERVER (a null host is every address). The socket is the
/// caller's to close. -1 with errno on failure; EINVAL also stands for a name that does not resolve.
int usock(int type, const char *host, const char *service);

#endif
