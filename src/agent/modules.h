#pragma once
/// The agent's four modules, as those see them who hear something that concerns several.

#include <optional>

#include "access/access.h"
#include "cloud/cloud.h"
#include "gateway/gateway.h"
#include "local/server.h"

namespace arvok {

struct modules {
    /// All are there: as long as the loop runs, but not at the start and at the end.
    explicit operator bool() const { return access && local && gateway && cloud; }

    std::optional<access::rules> access;
    std::optional<local::server> local;
    std::optional<gateway::client> gateway;
    std::optional<cloud::client> cloud;
};

}  // namespace arvok
