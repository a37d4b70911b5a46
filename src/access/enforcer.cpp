#include "access/enforcer.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr int change_delay_ms = 200, change_delay_max_ms = 1000;
constexpr std::time_t day_s = 86400;

// For the writes of one look at a time: whoever asks meanwhile waits for as long, a call of the platform
// more, and the list of hosts. And for all of them.
constexpr std::int64_t round_max_ms = 300;
constexpr std::int64_t writing_max_ms = 5000;

std::int64_t monotonic_ms() {
    const auto passed = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
}

std::vector<listed_host> told(const platform::host_list &records) {
    std::vector<listed_host> hosts;
    hosts.reserve(records.size());
    for (const qzcap_laninfo *record : records)
        hosts.push_back(
            {host_id(view_of(record->mac)), record->internetaccess, record->uplimit, record->downlimit});
    return hosts;
}

bool is_same(const host_change &one, const host_change &other) {
    return one.access == other.access && one.up_limit == other.up_limit && one.down_limit == other.down_limit;
}

bool write(qzcap_laninfo &record, const host_change &change) {
    record.internetaccess = change.access;
    record.uplimit = change.up_limit;
    record.downlimit = change.down_limit;
    return platform::call(qzcap_set_laninfo, record.index, &record, nullptr) == 0;
}

}  // namespace

enforcer::enforcer(rule_store &store, wall_clock clock)
    : store_(store),
      clock_(clock),
      next_(bind<&enforcer::enforce>(*this)),
      soon_(bind<&enforcer::enforce>(*this)),
      latest_(bind<&enforcer::enforce>(*this)),
      rest_(bind<&enforcer::enforce>(*this)) {}

void enforcer::enforce_soon() {
    soon_.arm(change_delay_ms);
    if (!latest_.is_armed())
        latest_.arm(change_delay_max_ms);
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
    latest_.cancel();
    rest_.cancel();
    const std::time_t now = clock_();
    bool is_known = store_.load();
    const std::size_t held_back = platform::gate::held_back();
    std::optional<platform::host_list> records;
    const bool is_wanted = is_needed();
    if (is_wanted) {
        records = platform::fetch_list<platform::host_list>(qzcap_list_laninfo);
        is_known &= records.has_value();
    }
    const std::vector<listed_host> hosts = records ? told(*records) : std::vector<listed_host>();
    const decision made = wanted(store_.rules(), hosts, instant(now));
    store_.set_actions(made.actions);
    if (records) {
        carry_out(made, *records, hosts);
        is_known &= settle(made, hosts);
    } else if (!is_wanted) {
        attempts_.clear();
    }
    if (is_known)
        unknown_.reset();
    else
        (unknown_ ? *unknown_ : unknown_.emplace())
            .failed(uptime(), platform::gate::held_back() == held_back);
    arm(made, now, records.has_value());
}

// A platform that is slow blocks the loop at every call. So what there is no time for is left to a look in
// the loop's next round, and when that has gone on for some seconds, it comes later. What was never tried is
// first, then what has been due the longest.
void enforcer::carry_out(const decision &made, platform::host_list &records,
                         const std::vector<listed_host> &hosts) {
    const long now_s = uptime();
    const std::int64_t began = monotonic_ms(), written_before = std::exchange(written_ms_, 0);
    bool is_left = false;
    const attempts before = std::exchange(attempts_, {});
    std::vector<attempt *> due;
    for (const host_change &change : made.changes) {
        const host_id &id = hosts[change.host].id;
        const std::uint32_t index = records[change.host].index;
        const auto last = before.find(index);
        const bool goes_on =
            last != before.end() && last->second.id == id && is_same(last->second.change, change);
        const attempt fresh{id, change, goes_on ? last->second.when : retry()};
        if (const auto [entry, is_new] = attempts_.emplace(index, fresh); is_new && fresh.when.is_due(now_s))
            due.push_back(&entry->second);
    }
    std::sort(due.begin(), due.end(), [](const attempt *one, const attempt *other) {
        return std::pair(one->when.due(), one->change.host) <
               std::pair(other->when.due(), other->change.host);
    });
    for (attempt *const now : due) {
        const std::size_t held_back = platform::gate::held_back();
        qzcap_laninfo &record = records[now->change.host];
        const std::int64_t passed = monotonic_ms() - began;
        if (uloop_cancelling() || written_before + passed >= writing_max_ms)
            now->when.put_off(uptime());
        else if (passed >= round_max_ms)
            is_left = true;
        else if (write(record, now->change))
            attempts_.erase(record.index);
        else
            now->when.failed(uptime(), platform::gate::held_back() == held_back);
    }
    if (is_left) {
        written_ms_ = written_before + monotonic_ms() - began;
        rest_.arm();
    }
}

// False when the disk refuses.
bool enforcer::settle(const decision &made, const std::vector<listed_host> &hosts) {
    host_ids taken, failed;
    for (const auto &[index, left] : attempts_)
        failed.insert(left.id);
    for (const listed_host &host : hosts)
        if (!failed.contains(host.id))
            taken.insert(host.id);
    store_.restrictions_tried(taken, failed);
    std::vector<host_id> free;
    std::copy_if(made.settled.begin(), made.settled.end(), std::back_inserter(free),
                 [&failed](const host_id &id) { return !failed.contains(id); });
    return store_.freed(free);
}

// Boundaries count from the instant that was evaluated: the platform has taken its time since then, and one
// that was passed meanwhile must still be seen.
void enforcer::arm(const decision &made, std::time_t evaluated, bool has_list) {
    const auto passed = static_cast<int>(std::clamp<std::time_t>(clock_() - evaluated, 0, day_s));
    int delay = std::max(1, made.next_s - passed);
    const long now = uptime();
    if (has_list)  // without it there is nothing to try
        for (const auto &[index, left] : attempts_)
            delay = std::min(delay, left.when.remaining(now));
    if (unknown_)
        delay = std::min(delay, unknown_->remaining(now));
    if (evaluated >= clock_set_after)
        log_printf("extcc_update_timer (%d): extcc next check is %ds (~%dh%dm) later\n", __LINE__, delay,
                   delay / 3600, delay % 3600 / 60);
    next_.arm(delay * 1000);
}

}  // namespace arvok::access
