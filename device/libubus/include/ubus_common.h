/*
 * What the client library and the daemon agree on outside the messages.
 */
#ifndef UBUS_COMMON_H
#define UBUS_COMMON_H

#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif

#endif
