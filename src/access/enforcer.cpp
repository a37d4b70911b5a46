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
            note_refusal(refused, host_id(""));
    }
    const std::vector<listed_host> hosts = records ? told(*records) : std::vector<listed_host>();
    const decision made = wanted(store_.rules(), hosts, instant(now));
    for (const host_change &change : made.changes)
        if (!write((*records)[change.host], change))
            note_refusal(refused, hosts[change.host].id);
    store_.set_actions(made.actions);
    if (records)
        settle(made, hosts, refused);
    refused_ = std::move(refused);
    arm(made, now);
}

void enforcer::note_refusal(retries &refused, const host_id &id) const {
    const auto before = refused_.find(id);
    refused.try_emplace(id, before == refused_.end() ? retry() : before->second)
        .first->second.refused(uptime());
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
        note_refusal(refused, host_id(""));
}

// Boundaries count from the instant that was evaluated: the platform has taken its time since then, and one
// that was passed meanwhile must still be seen.
void enforcer::arm(const decision &made, std::time_t evaluated) {
    const auto passed = static_cast<int>(std::clamp<std::time_t>(clock_() - evaluated, 0, day_s));
    int delay = std::max(1, made.next_s - passed);
    for (const auto &[host, next_try] : refused_)
        delay = std::min(delay, next_try.remaining(uptime()));
    if (evaluated >= clock_set_after)
        log_printf("extcc_update_timer (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
                   delay / 3600, delay % 3600 / 60);
    next_.arm(delay * 1000);
}

}  // namespace arvok::access
