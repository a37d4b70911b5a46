#pragma once
/// A server of the cloud platform: host and port as texts.

#include <cstdint>

namespace arvok {

enum server_state : std::int32_t { server_empty = 0, server_untried = 1, server_tried = 2 };

struct server {
    char host[32];
    char port[8];
    std::int32_t state;  ///< server_state
};

/// Splits "host:port" at the first ':' into the record and makes it untried. What is missing stays empty.
void str_to_server(const char *text, server &record);

/// Whether both name the same host and port.
bool same_server(const server &a, const server &b);

/// 1 when the host is a domain name or an IPv4 address and the port is a port, else 0.
int is_valid_server(const server &record);

}  // namespace arvok
