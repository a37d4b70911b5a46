#include "cloud_client/server_record.h"

#include <cstdio>

#include "common/network.h"
#include "common/text.h"

namespace arvok {

void str_to_server(const char *text, server &record) {
    char host[32] = "", port[32] = "";
    std::sscanf(text_or_empty(text), "%31[^:]:%31s", host, port);
    _strlcpy(record.host, host, sizeof record.host);
    _strlcpy(record.port, port, sizeof record.port);
    record.state = server_untried;
}

bool same_server(const server &a, const server &b) {
    return _strcmp(a.host, b.host) == 0 && _strcmp(a.port, b.port) == 0;
}

int is_valid_server(const server &record) {
    return record.host[0] && (is_valid_domain(record.host) || is_valid_ip(record.host)) && record.port[0] &&
           is_valid_port(record.port);
}

}  // namespace arvok
