#include "access/rule_store.h"

#include <optional>
#include <utility>

#include "base/files.h"
#include "base/log.h"

namespace arvok::access {
namespace {

constexpr char schedule_file[] = "extcc-lht.cfg";
constexpr char restriction_file[] = "extcc-lhpc.cfg";
constexpr char free_file[] =
    "extcc-lhf.cfg";  // of hosts to be freed, one a line; there only while there are some
constexpr std::size_t file_max = std::size_t{16} << 20;  // far beyond what is ever written

std::string content(const std::string &path) {
    return read_file(path, file_max).value_or("");
}

bool grows_beyond(std::size_t max, std::size_t before, std::size_t now) {
    return now > max && now > before;
}

}  // namespace

rule_store::rule_store(const std::string &folder)
    : schedule_path_(folder + schedule_file),
      restriction_path_(folder + restriction_file),
      free_path_(folder + free_file) {
    rules_.times.load(content(schedule_path_));
    rules_.limits.load(content(restriction_path_));
    rules_.to_free.load(content(free_path_));
}

// What went wrong, or nothing.
std::optional<std::string> rule_store::save_hosts_to_free(const hosts_to_free &hosts) {
    auto why = hosts.empty() ? remove_file(free_path_) : save_file(free_path_, hosts.text());
    free_file_is_old_ = why.has_value();
    return why;
}

// More hosts to be freed go first, and those that are no more go at the next look: one too many among them
// says nothing as long as its rule stands, but one too few stays restricted for good when the power goes in
// between.
std::optional<std::string> rule_store::save(const hosts_to_free &to_free, const std::string &path,
                                            const std::string &text) {
    hosts_to_free either = rules_.to_free;
    either.add(to_free);
    const bool others_to_free = free_file_is_old_ || either != rules_.to_free;
    auto why = others_to_free ? save_hosts_to_free(either) : std::nullopt;
    if (!why && (why = save_file(path, text)) && others_to_free)
        save_hosts_to_free(rules_.to_free);
    if (!why && either != to_free)
        free_file_is_old_ = true;
    return why;
}

stored rule_store::set_schedule(host_schedule fresh, bool free) {
    const host_id id(fresh.mac);
    const host_schedule *old = rules_.times.find(id);
    const std::size_t before = old ? old->rules.size() : 0, now = fresh.rules.size();
    hosts_to_free to_free = rules_.to_free;
    if (free)
        to_free.add(id);
    if (grows_beyond(rules_max, rules_.times.size(), rules_.times.size() - before + now))
        return stored::too_many;
    if (const auto why = save(to_free, schedule_path_, rules_.times.text_with(fresh))) {
        log_printf("[ERROR] set_lanhost_timer: failed to save %s %s\n", schedule_path_.c_str(), why->c_str());
        return stored::not_saved;
    }
    rules_.to_free = std::move(to_free);
    rules_.times.replace(std::move(fresh));
    return stored::done;
}

stored rule_store::set_restrictions(restrictions limits, hosts_to_free to_free) {
    if (grows_beyond(hosts_max, rules_.limits.entries().size(), limits.entries().size()))
        return stored::too_many;
    if (const auto why = save(to_free, restriction_path_, limits.text())) {
        log_printf("[ERROR] %s: failed to save _save_pr_cfg %s\n", restriction_path_.c_str(), why->c_str());
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
    if (why && !refusal_is_told_)
        log_printf("[ERROR] extcc: failed to save %s %s\n", free_path_.c_str(), why->c_str());
    refusal_is_told_ = why.has_value();
    return !why;
}

}  // namespace arvok::access
