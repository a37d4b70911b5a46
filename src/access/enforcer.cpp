#include "access/enforcer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr int change_delay_ms = 200;
constexpr std::time_t day_s = 86400;
constexpr long round_s = 5;  // for the writes of one look

std::vector<listed_host> told(const platform::host_list &records) {
    std::vector<listed_host> hosts;
    hosts.reserve(records.size());
    for (const qzcap_laninfo *record : records)
        hosts.push_back(
            {host_id(view_of(record->mac)), record->internetaccess, record->uplimit, record->downlimit});
    return hosts;
}

bool write(qzcap_laninfo &record, const host_change &change) {
    record.internetaccess = change.access;
    record.uplimit = change.up_limit;
    record.downlimit = change.down_limit;
    return qzcap_set_laninfo(record.index, &record, nullptr) == 0;
}

}  // namespace

enforcer::enforcer(rule_store &store, wall_clock clock)
    : store_(store),
      clock_(clock),
      next_(bind<&enforcer::enforce>(*this)),
      soon_(bind<&enforcer::enforce>(*this)) {}

void enforcer::enforce_soon() {
    if (!soon_.is_armed())
        soon_.arm(change_delay_ms);
}

void enforcer::enforce_all_soon() {
    store_.ask_for_restrictions();
    enforce_soon();
}

// The day of the schedules is the same whatever the device keeps.
std::optional<rule_instant> enforcer::instant(std::time_t now) {
    if (now < clock_set_after)
        return std::nullopt;
    if (!keeps_utc_ && now > clock_set_after)
        keeps_utc_ = keeps_utc(now);
    return rule_instant_at(now, keeps_utc_.value_or(false));
}

// Whether any rule may want something of a host.
bool enforcer::is_needed() const {
    const rule_set &rules = store_.rules();
    const auto &entries = rules.limits.entries();
    return rules.times.size() > 0 || !rules.to_free.empty() || store_.is_behind() ||
           std::any_of(entries.begin(), entries.end(), [](const restriction &entry) { return entry.asked; });
}

void enforcer::enforce() {
    soon_.cancel();
    const std::time_t now = clock_();
    std::optional<platform::host_list> records;
    retries refused;
    if (is_needed()) {
        records = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
        if (!records)
            next_try(refused, host_id("")).refused(uptime());
    }
    const std::vector<listed_host> hosts = records ? told(*records) : std::vector<listed_host>();
    const decision made = wanted(store_.rules(), hosts, instant(now));
    if (records)
        carry_out(made, *records, hosts, refused);
    store_.set_actions(made.actions);
    if (records)
        settle(made, hosts, refused);
    refused_ = std::move(refused);
    arm(made, now);
}

// A platform that answers nothing blocks the loop at every call: the hosts that there is no time for come
// later, and before those that it refused.
void enforcer::carry_out(const decision &made, platform::host_list &records,
                         const std::vector<listed_host> &hosts, retries &refused) const {
    const long end = uptime() + round_s;
    for (const bool again : {false, true}) {
        for (const host_change &change : made.changes) {
            const host_id &id = hosts[change.host].id;
            const auto before = refused_.find(id);
            if (again != (before != refused_.end() && before->second.was_refused()))
                continue;
            if (uloop_cancelling() || uptime() >= end)
                next_try(refused, id).put_off(uptime());
            else if (!write(records[change.host], change))
                next_try(refused, id).refused(uptime());
        }
    }
}

// That of the last look goes on.
retry &enforcer::next_try(retries &refused, const host_id &id) const {
    const auto before = refused_.find(id);
    return refused.try_emplace(id, before == refused_.end() ? retry() : before->second).first->second;
}

void enforcer::settle(const decision &made, const std::vector<listed_host> &hosts, retries &refused) {
    host_ids listed, failed;
    for (const listed_host &host : hosts)
        (refused.contains(host.id) ? failed : listed).insert(host.id);
    store_.restrictions_tried(listed, failed);
    std::vector<host_id> free;
    std::copy_if(made.settled.begin(), made.settled.end(), std::back_inserter(free),
                 [&failed](const host_id &id) { return !failed.contains(id); });
    if (!store_.freed(free))
        next_try(refused, host_id("")).refused(uptime());
}

// Boundaries count from the instant that was evaluated: the platform has taken its time since then, and one
// that was passed meanwhile must still be seen.
void enforcer::arm(const decision &made, std::time_t evaluated) {
    const auto passed = static_cast<int>(std::clamp<std::time_t>(clock_() - evaluated, 0, day_s));
    int delay = std::max(1, made.next_s - passed);
    for (const auto &[host, when] : refused_)
        delay = std::min(delay, when.remaining(uptime()));
    if (evaluated >= clock_set_after)
        log_printf("extcc_update_timer (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
                   delay / 3600, delay % 3600 / 60);
    next_.arm(delay * 1000);
}

}  // namespace arvok::access
