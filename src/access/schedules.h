#pragma once
/// The access schedules of LAN hosts, in memory and in their file.

#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "access/schedule.h"
#include "base/handle.h"
#include "platform/records.h"

namespace arvok::access {

/// A line of the schedule file: a field that is not found is empty.
struct schedule_line {
    std::string mac, mode, start, end, enable, continue_id, group_id;
};

class schedules {
  public:
    /// Loads the file of the folder, which ends with a slash. A missing file holds nothing; of a line that
    /// does not parse, the fields found are taken and the others are empty.
    explicit schedules(const std::string &folder);
    schedules(const schedules &) = delete;
    schedules &operator=(const schedules &) = delete;

    /// Newest first.
    std::list<host_schedule> &hosts() { return hosts_; }
    const std::list<host_schedule> &hosts() const { return hosts_; }

    /// The schedule of a MAC, ignoring case; null for none. Constant time.
    const host_schedule *find(std::string_view mac) const;
    /// The same of a host as the platform knows it, which may have no MAC.
    const host_schedule *find(const qzcap_laninfo &host) const;

    /// Drops a host's schedule, and from the file every line that contains the MAC as given. The file stays
    /// as it was when there is no room for what is left of it. The host is to be freed.
    void remove(std::string_view mac);

    /// The host whose schedule was taken away and whose access is to be freed; empty: none.
    const std::string &host_to_free() const { return host_to_free_; }
    void free_no_host() { host_to_free_.clear(); }

    class addition;
    class reader;

  private:
    void add(std::string_view mac, schedule_rule rule);
    void remove_lines(std::string_view mac) const;

    const std::string path_, copy_path_;
    std::list<host_schedule> hosts_;
    std::unordered_map<std::string, host_schedule *> by_mac_;  ///< by upper-case MAC
    std::string host_to_free_;
};

/// Adds rules to memory and at the end of the file, which is on the disk when this ends. When the file cannot
/// be opened, which is logged, they are kept in memory only.
class schedules::addition {
  public:
    explicit addition(schedules &to);
    ~addition();
    addition(const addition &) = delete;
    addition &operator=(const addition &) = delete;

    /// `rule` as in memory; the two other texts are kept in the file only.
    void add(std::string_view mac, const schedule_rule &rule, std::string_view continue_id,
             std::string_view group_id);

  private:
    schedules &to_;
    file_handle file_;
};

/// Reads the file's lines in order.
class schedules::reader {
  public:
    explicit reader(const schedules &from);
    /// Nothing behind the last.
    std::optional<schedule_line> next();

  private:
    file_handle file_;
};

}  // namespace arvok::access
