#pragma once
/// The agent's four modules, as those see them who hear something that concerns several: all are there as
/// long as the loop runs.

#include <optional>

#include "access/access.h"
#include "cloud/cloud.h"
#include "gateway/gateway.h"
#include "local/server.h"

namespace arvok {

struct modules {
    std::optional<access::module> access;
    std::optional<local::server> local;
    std::optional<gateway::client> gateway;
    std::optional<cloud::client> cloud;
};

}  // namespace arvok
