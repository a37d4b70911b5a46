#pragma once
/// Addresses of this device and its gateway, and checks of addresses that a user or a peer supplies.
/// The functions that return text use one static buffer each: the result is valid until the next call.

namespace arvok {

/// Local IPv4 address of a connected socket, or "".
const char *_get_socket_ip(int fd);

/// The IPv4 default gateway, or "". `skip_bridge` non-zero passes over routes through interfaces whose names
/// begin with "br"; `exclude` (may be null) names a gateway to pass over.
const char *_get_gateway_ip(int skip_bridge, const char *exclude);

/// MAC of that gateway as 12 upper-case hex digits, from the kernel's ARP table. A gateway without an entry
/// gives the MAC of the table's last entry; an empty table gives "".
const char *_get_gateway_mac(int skip_bridge, const char *exclude);

/// 1 when the text begins with a letter or digit and goes on with letters, digits, '-' and '.' only; else 0.
int is_valid_domain(const char *s);

/// 1 for a dotted-quad IPv4 address, else 0.
int is_valid_ip(const char *s);

/// 1 for a decimal number 1..65535, else 0.
int is_valid_port(const char *s);

}  // namespace arvok
