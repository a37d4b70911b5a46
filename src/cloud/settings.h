#pragma once
/// The platform's servers and the device's identity there: taken from the platform library at the start,
/// handed back whenever they change, so that a restart resumes at the business server with the identity it
/// has.

#include <optional>
#include <string>

#include "base/masked_text.h"
#include "cloud/server.h"

namespace arvok::cloud {

struct settings {
    server bootstrap;
    business_servers business;  ///< as the bootstrap server named them; valid ones, and empty places
    std::string device_id;      ///< the device's identity
    masked_text device_token;   ///< and its proof

    /// The bootstrap server has named a business server.
    bool has_business() const;
    /// The platform has given the device an identity.
    bool is_activated() const { return !device_id.empty() && !device_token.empty(); }
    /// Forgets the identity, and stores that.
    void clear_identity();
    /// Stores everything; a failure is logged.
    void store() const;
};

/// The stored settings, or those with the bootstrap server that the user gave and nothing else.
settings load_settings(const std::optional<server> &given);

}  // namespace arvok::cloud
