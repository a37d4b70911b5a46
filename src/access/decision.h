#pragma once
/// What the platform's records of the LAN hosts should be, by the rules: a function of rules, hosts and time.
///
/// A host's access to the internet is the first of these that there is:
///
///     a blocking entry other than "unrestricted"   its value
///     a schedule                                   what it says, by the clock
///     it is to be freed                            "unrestricted"
///
/// Else it is left as it is. Entries count only when somebody asked for restrictions to be applied, because
/// other hands may have changed the record since; so do rate limits.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "access/rule_store.h"
#include "access/schedule.h"

namespace arvok::access {

/// What the platform has of a host that it lists.
struct listed_host {
    host_id id;
    std::int32_t access, up_limit, down_limit;
};

/// A host whose record is not what it should be.
struct host_change {
    std::size_t host;                           ///< its place in the list
    std::int32_t access, up_limit, down_limit;  ///< all of what the record should have
};

struct decision {
    std::vector<internet_access>
        actions;                       ///< of the schedules, in their order; none while the clock is not set
    std::vector<host_change> changes;  ///< in the list's order
    std::vector<host_id> settled;      ///< no longer to be freed, once the changes are made
    int next_s;                        ///< seconds until the rules may want something else
};

/// `now`: nothing while the clock is not set; it is then looked at again in a minute.
decision wanted(const rule_set &rules, const std::vector<listed_host> &hosts,
                const std::optional<rule_instant> &now);

}  // namespace arvok::access
