#pragma once
/// The access schedules of LAN hosts, in memory and as the lines of their file:
///
///     MAC|Mode|StartTime|EndTime|Enable|ContinueID|GroupID

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "access/host_id.h"
#include "access/schedule.h"

namespace arvok::access {

/// A line of the schedule file, cut to what is kept of it. An empty field ends it, but for the MAC and the
/// last two: those behind it are empty.
struct schedule_line {
    std::string mac, mode, start, end, enable, continue_id, group_id;
};

schedule_line parse_schedule_line(std::string_view line);
/// A line that holds just that.
std::string text_of(const schedule_line &line);

class schedules {
  public:
    schedules() = default;
    schedules(const schedules &) = delete;
    schedules &operator=(const schedules &) = delete;

    /// Newest first.
    const std::list<host_schedule> &hosts() const { return hosts_; }
    /// Rules of all hosts.
    std::size_t size() const { return size_; }
    /// Null for none. Constant time.
    const host_schedule *find(const host_id &id) const;

    /// Takes over what a file holds; a line is a rule, and empty ones are none. What is never told of a line
    /// that is longer than any needs to be is left out.
    void load(std::string_view file);
    /// What the file holds once `fresh` is in the place of its host's schedule: the oldest host first.
    std::string text_with(const host_schedule &fresh) const;
    /// Puts it there, as the newest; one without rules only takes the old one away.
    void replace(host_schedule fresh);

    /// The hosts' accesses by the last evaluation, in the order of hosts(); none leaves them.
    void set_actions(const std::vector<internet_access> &actions);

  private:
    std::list<host_schedule> hosts_;
    std::unordered_map<host_id, std::list<host_schedule>::iterator> by_host_;
    std::size_t size_ = 0;
};

}  // namespace arvok::access
