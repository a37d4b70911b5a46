#pragma once
/// The rules in memory, their files, and the checks of what a command says.

#include <ctime>
#include <vector>

#include "arvok/device_info.h"
#include "extcc/extcc.h"

namespace arvok {

/// Folder of the rule files, with its final slash. Tests put their own in.
extern const char *rule_folder;
/// A file in that folder, by its name.
std::string rule_path(const char *name);

inline constexpr char schedule_file[] = "extcc-lht.cfg";
inline constexpr char parent_file[] = "extcc-lhpc.cfg";
inline constexpr char guest_index_file[] = "extcc-gst-idx.cfg";
inline constexpr char guest_timer_file[] = "extcc-gst-tmr.cfg";

// --- rules in memory ---

/// Replaces what is in memory by what the files hold. A missing file holds nothing; of a line that does not
/// parse, the fields found are taken and the others are empty.
void load_rules();
/// Forgets all rules.
void clear_rules();

/// The newest node of a MAC, ignoring case; null for none and for null. Constant time.
timer_host *_find_timer_host(const char *mac);
parent_rule *_find_parent_rule(const char *mac);

/// Adds one schedule rule at the front; the host's node is made when there is none.
void _add_mac_to_list(const char *mac, const char *start, const char *end, int enable, int mode);
/// Adds an entry at the front. `internet` counts with parent_internet, the limits with parent_rate.
void _add_parent_rule(const char *mac, std::uint32_t flags, std::uint32_t internet, std::uint32_t down_limit,
                      std::uint32_t up_limit);
/// Drops a host's schedule.
void remove_timer_host(const char *mac);
/// Takes a flag out of every entry; entries without another go.
void drop_parent_flag(parent_flag flag);

// --- files ---

/// A line of the schedule file: a field that is not found is empty.
struct schedule_line {
    char mac[rule_mac_size], mode[8], start[8], end[8], enable[3], continue_id[16], group_id[16];
};
/// The schedule file's lines, in order.
std::vector<schedule_line> schedule_lines();

/// The text with its line feeds replaced: one rule is one line, whatever its texts hold.
std::string one_line(std::string text);
/// Rewrites the blocking and rate file.
void _save_pr_cfg();
/// Removes the lines that contain the text from the schedule file; null removes all. The file stays as it was
/// when there is no room for what is left of it.
void _remove_timer_lines(const char *mac);

// --- platform records ---

template <typename Action>
void for_each_host(const laninfos_ptr &hosts, Action action) {
    for (qzcap_laninfo *host : hosts_of(hosts))
        action(*host);
}

// --- checks ---

/// Whether the text is a time of day: "24:00", or one or two digits of at most 23, ':' and two digits.
/// Minutes above 59 carry into the hour.
int _is_valid_hhmm(const char *text);
/// Whether the text is a whole decimal number in [min, max].
int _is_uint_in(const char *text, unsigned long min, unsigned long max);
/// That number; of another text what begins it.
std::uint32_t uint_value(const char *text);

}  // namespace arvok
