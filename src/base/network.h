#pragma once
/// Addresses of this device and its gateway, and checks of addresses that a user or a peer supplies.

#include <string>
#include <string_view>

namespace arvok {

/// Local IPv4 address of a connected socket, or "".
std::string local_address(int fd);

/// Has a TCP connection, be it one in the making, break when its peer is gone without a word: after a minute
/// in which nothing came back.
void notice_dead_peer(int fd);

/// The IPv4 default gateway, or "". `skip_bridge` passes over routes through interfaces whose names begin
/// with "br"; `exclude` names a gateway to pass over.
std::string gateway_address(bool skip_bridge, std::string_view exclude);

/// MAC of that gateway as 12 upper-case hex digits, from the kernel's ARP table. A gateway without an entry
/// gives the MAC of the table's last entry; an empty table gives "".
std::string gateway_mac(bool skip_bridge, std::string_view exclude);

/// Whether the text begins with a letter or digit and goes on with letters, digits, '-' and '.' only.
bool is_domain(std::string_view text);

/// Whether the text is a dotted-quad IPv4 address.
bool is_ipv4_address(std::string_view text);

/// Whether the text is a decimal number from 1 to 65535.
bool is_port(std::string_view text);

}  // namespace arvok
