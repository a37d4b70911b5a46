#pragma once
/// A server of the cloud platform: host and port as texts.

#include <cstdint>

namespace arvok {

struct server {
    char host[32];
    char port[8];
    std::int32_t state;  ///< 0 empty, 1 usable and not yet tried, 2 tried
};

/// Splits "host:port" at the first ':' into the record and sets its state to 1. What is missing stays empty.
void str_to_server(const char *text, server &record);

/// 1 when the host is a domain name or an IPv4 address and the port is a port, else 0.
int is_valid_server(const server &record);

}  // namespace arvok
