#include "cloud/server.h"

#include <algorithm>

#include "base/network.h"
#include "base/text.h"

namespace arvok::cloud {
namespace {

constexpr std::string_view white_space = " \t\n\v\f\r";

}  // namespace

bool is_valid(const server &named) {
    return (is_domain(named.host) || is_ipv4_address(named.host)) && is_port(named.port);
}

server make_server(std::string_view host, std::string_view port) {
    return {std::string(cut(host, host_max)), std::string(cut(port, port_max))};
}

server parse_server(std::string_view text) {
    const std::size_t colon = text.find(':');
    const std::string_view host = text.substr(0, colon);
    if (host.empty() || colon == std::string_view::npos || colon > host_max)
        return make_server(host, "");
    std::string_view port = text.substr(colon + 1);
    port.remove_prefix(std::min(port.find_first_not_of(white_space), port.size()));
    return make_server(host, port.substr(0, port.find_first_of(white_space)));
}

}  // namespace arvok::cloud
