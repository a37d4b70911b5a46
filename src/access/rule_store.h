#pragma once
/// The rules of LAN hosts and their files: what is promised to an app is in both, or in neither.

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "access/host_id.h"
#include "access/hosts_to_free.h"
#include "access/restrictions.h"
#include "access/schedules.h"

namespace arvok::access {

using host_ids = std::unordered_set<host_id>;

struct rule_set {
    schedules times;
    restrictions limits;
    hosts_to_free to_free;
};

/// How a change of the rules ended.
enum class stored {
    done,
    not_saved,  ///< the disk refused, which the log says; nothing has changed
    too_many,   ///< more than is kept; nothing has changed
};

class rule_store {
  public:
    /// Schedule rules of all hosts, hosts with schedules, and hosts with restrictions: some more than the
    /// 10,000 rules for 1,000 hosts of the largest home, so that no app fills memory or disk. Schedules then
    /// take 2 MB whatever is in them. What older programs left may be more; it is kept and does not grow.
    static constexpr std::size_t rules_max = 16384, scheduled_max = 2048, hosts_max = hosts_to_free::max;

    /// Loads the files of the folder, which ends with a slash. A missing file holds nothing. One that cannot
    /// be read, which the log says once, says nothing of what it holds: as long as there is one, no change is
    /// stored.
    explicit rule_store(const std::string &folder);
    rule_store(const rule_store &) = delete;
    rule_store &operator=(const rule_store &) = delete;

    /// Reads the files that could not be read yet. Whether all are known.
    bool load();
    bool is_loaded() const { return is_loaded_; }
    const rule_set &rules() const { return rules_; }

    /// Puts a schedule in the place of its host's; `free` also has the host freed.
    stored set_schedule(host_schedule fresh, bool free);
    /// Puts the drafts in the place of what there is. When they are too many, the oldest that restrict
    /// nothing make room.
    stored set_restrictions(restrictions limits, hosts_to_free to_free);

    /// Marks every restriction as to be applied.
    void ask_for_restrictions();
    /// What became of those: the platform took them, refused them, or does not list their hosts.
    void restrictions_tried(const host_ids &taken, const host_ids &refused);
    void set_actions(const std::vector<internet_access> &actions) { rules_.times.set_actions(actions); }
    /// These hosts are free. False while the disk refuses to say so, which the log says once; to be called
    /// again then, also without hosts.
    bool freed(const std::vector<host_id> &ids);
    /// Whether the file of the hosts to be freed holds others than these.
    bool is_behind() const { return free_file_is_old_; }

  private:
    struct rule_file {
        std::string path;
        bool is_known = false, is_told = false;
    };

    template <typename Rules>
    void read(rule_file &file, Rules &rules);
    std::optional<std::string> save(const hosts_to_free &to_free, const std::string &path,
                                    const std::string &text);
    std::optional<std::string> save_hosts_to_free(const hosts_to_free &hosts) const;

    rule_file schedule_file_, restriction_file_, free_file_;
    rule_set rules_;
    std::string why_unknown_;  ///< of a file, by the last try
    bool is_loaded_ = false, free_file_is_old_ = false, refusal_is_told_ = false;
};

}  // namespace arvok::access
