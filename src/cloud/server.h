#pragma once
/// A server of the cloud platform.

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace arvok::cloud {

/// Bytes of a host and of a port: what the platform library's settings hold. Cut, a longer text would name
/// another server.
constexpr std::size_t host_max = 31, port_max = 7;

struct server {
    std::string host;  ///< name or IPv4 address
    std::string port;  ///< decimal

    /// There is none here.
    bool empty() const { return host.empty(); }
    /// "host:port"
    std::string text() const { return host + ":" + port; }

    bool operator==(const server &) const = default;
};

/// The business servers that the platform names; a place may be empty.
constexpr std::size_t business_max = 5;
using business_servers = std::array<server, business_max>;

/// Whether the host is a domain name or an IPv4 address, the port is a port, and neither is too long.
bool is_valid(const server &named);

/// Splits "host:port" at the first ':'. The port goes to the next white space; what is missing stays empty.
server parse_server(std::string_view text);

}  // namespace arvok::cloud
