#include "access/rule_store.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <variant>

#include "base/files.h"
#include "base/log.h"

namespace arvok::access {
namespace {

constexpr char schedules_name[] = "extcc-lht.cfg";
constexpr char restrictions_name[] = "extcc-lhpc.cfg";
constexpr char free_name[] =
    "extcc-lhf.cfg";  // of hosts to be freed, one a line; there only while there are some
constexpr std::size_t file_max = std::size_t{16} << 20;  // far beyond what is ever written

bool grows_beyond(std::size_t max, std::size_t before, std::size_t now) {
    return now > max && now > before;
}

}  // namespace

rule_store::rule_store(const std::string &folder)
    : schedule_file_{folder + schedules_name},
      restriction_file_{folder + restrictions_name},
      free_file_{folder + free_name} {
    load();
}

template <typename Rules>
void rule_store::read(rule_file &file, Rules &rules) {
    if (file.is_known)
        return;
    const file_content content = read_file(file.path, file_max);
    if (const auto *failed = std::get_if<unreadable_file>(&content)) {
        why_unknown_ = failed->why;
        is_loaded_ = false;
        if (!std::exchange(file.is_told, true))
            log_printf("[ERROR] extcc: failed to read %s %s\n", file.path.c_str(), why_unknown_.c_str());
        return;
    }
    file.is_known = true;
    if (const auto *text = std::get_if<std::string>(&content))
        rules.load(*text);
}

// A host that was blocked is not to be freed any more, also when the power went before its file said so.
bool rule_store::load() {
    if (is_loaded_)
        return true;
    is_loaded_ = true;
    read(schedule_file_, rules_.times);
    read(restriction_file_, rules_.limits);
    read(free_file_, rules_.to_free);
    const std::size_t before = rules_.to_free.size();
    for (const restriction &entry : rules_.limits.entries())
        if (entry.blocks())
            rules_.to_free.remove(host_id(entry.mac));
    free_file_is_old_ |= rules_.to_free.size() < before;
    return is_loaded_;
}

// What went wrong, or nothing.
std::optional<std::string> rule_store::save_hosts_to_free(const hosts_to_free &hosts) const {
    return hosts.empty() ? remove_file(free_file_.path) : save_file(free_file_.path, hosts.text());
}

// More hosts to be freed go first: one too few stays restricted for good when the power goes in between.
// Those that are no more go at the next look or command, whichever is first. One too many until then says
// nothing: it is blocked, and load() knows that as well.
std::optional<std::string> rule_store::save(const hosts_to_free &to_free, const std::string &path,
                                            const std::string &text) {
    if (!is_loaded_)
        return why_unknown_;
    std::optional<hosts_to_free> both;  // they may be thousands
    if (to_free != rules_.to_free)
        both.emplace(rules_.to_free).add(to_free);
    const hosts_to_free &either = both ? *both : rules_.to_free;
    if (free_file_is_old_ || either != rules_.to_free) {
        if (auto why = save_hosts_to_free(either))
            return why;
        free_file_is_old_ = either != rules_.to_free;
    }
    if (auto why = save_file(path, text)) {
        if (free_file_is_old_)
            free_file_is_old_ = save_hosts_to_free(rules_.to_free).has_value();
        return why;
    }
    free_file_is_old_ = either != to_free;
    return std::nullopt;
}

stored rule_store::set_schedule(host_schedule fresh, bool free) {
    const host_id id(fresh.mac);
    const host_schedule *old = rules_.times.find(id);
    const std::size_t before = old ? old->rules.size() : 0, now = fresh.rules.size();
    const std::size_t hosts = rules_.times.hosts().size();
    if (grows_beyond(rules_max, rules_.times.size(), rules_.times.size() - before + now) ||
        grows_beyond(scheduled_max, hosts, hosts + (!old && now > 0 ? 1 : 0)))
        return stored::too_many;
    std::optional<hosts_to_free> to_free;
    if (free)
        to_free.emplace(rules_.to_free).add(id);
    if (const auto why =
            save(to_free ? *to_free : rules_.to_free, schedule_file_.path, rules_.times.text_with(fresh))) {
        log_printf("[ERROR] set_lanhost_timer: failed to save %s %s\n", schedule_file_.path.c_str(),
                   why->c_str());
        return stored::not_saved;
    }
    if (to_free)
        rules_.to_free = std::move(*to_free);
    rules_.times.replace(std::move(fresh));
    return stored::done;
}

stored rule_store::set_restrictions(restrictions limits, hosts_to_free to_free) {
    const std::size_t before = rules_.limits.entries().size();
    limits.make_room(std::max(hosts_max, before), rules_.limits);
    if (grows_beyond(hosts_max, before, limits.entries().size()))
        return stored::too_many;
    if (const auto why = save(to_free, restriction_file_.path, limits.text())) {
        log_printf("[ERROR] %s: failed to save _save_pr_cfg %s\n", restriction_file_.path.c_str(),
                   why->c_str());
        return stored::not_saved;
    }
    rules_.limits = std::move(limits);
    rules_.to_free = std::move(to_free);
    return stored::done;
}

void rule_store::ask_for_restrictions() {
    for (restriction &entry : rules_.limits.entries())
        entry.asked = true;
}

void rule_store::restrictions_tried(const host_ids &taken, const host_ids &refused) {
    for (restriction &entry : rules_.limits.entries()) {
        if (!entry.asked)
            continue;
        const host_id id(entry.mac);
        entry.applied = taken.contains(id) ? entry.kinds : 0;
        entry.asked = refused.contains(id);
    }
}

bool rule_store::freed(const std::vector<host_id> &ids) {
    for (const host_id &id : ids)
        rules_.to_free.remove(id);
    if (ids.empty() && !free_file_is_old_)
        return true;
    const auto why = save_hosts_to_free(rules_.to_free);
    free_file_is_old_ = why.has_value();
    if (why && !refusal_is_told_)
        log_printf("[ERROR] extcc: failed to save %s %s\n", free_file_.path.c_str(), why->c_str());
    refusal_is_told_ = why.has_value();
    return !why;
}

}  // namespace arvok::access
