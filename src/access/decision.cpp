#include "access/decision.h"

#include <unordered_map>

namespace arvok::access {
namespace {

constexpr int clock_retry_s = 60;

using schedule_actions = std::unordered_map<const host_schedule *, internet_access>;

std::optional<std::int32_t> wanted_access(const rule_set &rules, const schedule_actions &actions,
                                          const host_id &id) {
    const restriction *entry = rules.limits.find(id);
    if (entry && entry->blocks())
        return entry->asked ? std::optional(static_cast<std::int32_t>(entry->internet)) : std::nullopt;
    if (const host_schedule *schedule = rules.times.find(id)) {
        const auto action = actions.find(schedule);
        return action == actions.end() ? std::nullopt : std::optional<std::int32_t>(action->second);
    }
    return rules.to_free.contains(id) ? std::optional<std::int32_t>(unrestricted) : std::nullopt;
}

}  // namespace

decision wanted(const rule_set &rules, const std::vector<listed_host> &hosts,
                const std::optional<rule_instant> &now) {
    decision made{.actions = {}, .changes = {}, .settled = {}, .next_s = clock_retry_s};
    schedule_actions actions;
    if (now) {
        for (const host_schedule &schedule : rules.times.hosts())
            actions[&schedule] =
                made.actions.emplace_back(is_in_range(schedule, *now) ? scheduled : unrestricted);
        made.next_s = seconds_to_next_check(rules.times.hosts(), *now);
    }
    for (std::size_t at = 0; at < hosts.size(); at++) {
        const listed_host &host = hosts[at];
        if (host.id.text().empty())
            continue;  // a host that nobody knows
        host_change change{at, host.access, host.up_limit, host.down_limit};
        if (const auto access = wanted_access(rules, actions, host.id)) {
            change.access = *access;
            if (rules.to_free.contains(host.id))
                made.settled.push_back(host.id);
        }
        const restriction *entry = rules.limits.find(host.id);
        if (entry && entry->asked && entry->kinds & restricts_rate) {
            change.up_limit = static_cast<std::int32_t>(entry->up_limit);
            change.down_limit = static_cast<std::int32_t>(entry->down_limit);
        }
        if (change.access != host.access || change.up_limit != host.up_limit ||
            change.down_limit != host.down_limit)
            made.changes.push_back(change);
    }
    return made;
}

}  // namespace arvok::access
