#include "cloud/server.h"

#include <algorithm>

#include "base/network.h"

namespace arvok::cloud {
namespace {

constexpr std::string_view white_space = " \t\n\v\f\r";

}  // namespace

bool is_valid(const server &named) {
    return named.host.size() <= host_max && named.port.size() <= port_max &&
           (is_domain(named.host) || is_ipv4_address(named.host)) && is_port(named.port);
}

server parse_server(std::string_view text) {
    const std::size_t colon = text.find(':');
    const std::string_view host = text.substr(0, colon);
    if (host.empty() || colon == std::string_view::npos)
        return {std::string(host), ""};
    std::string_view port = text.substr(colon + 1);
    port.remove_prefix(std::min(port.find_first_not_of(white_space), port.size()));
    return {std::string(host), std::string(port.substr(0, port.find_first_of(white_space)))};
}

}  // namespace arvok::cloud
