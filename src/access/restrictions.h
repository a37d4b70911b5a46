#pragma once
/// Blocking and rate limits of LAN hosts, in memory and as the lines of their file:
///
///     MAC|kinds|InternetAccess|MaxDSBandwidth|MaxUSBandwidth

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "access/host_id.h"

namespace arvok::access {

/// Bits of restriction::kinds.
enum restriction_kind : std::uint32_t { restricts_rate = 1, restricts_internet = 2 };

/// What one host is restricted to.
struct restriction {
    std::string mac;               ///< as it was given last
    std::uint32_t kinds = 0;       ///< restriction_kind bits: what is set
    std::uint32_t internet = 0;    ///< internet_access; with restricts_internet
    std::uint32_t up_limit = 0;    ///< with restricts_rate
    std::uint32_t down_limit = 0;  ///< with restricts_rate
    std::uint32_t applied = 0;     ///< the kinds that the platform took last; 0: none yet
    bool asked = false;            ///< somebody asked for it to be applied, and it was not yet

    /// Whether it restricts the use of the internet, and not only its rate.
    bool blocks() const;
    /// Whether it limits a rate.
    bool limits_rate() const;
};

/// One entry for each host. A copy is a draft: it is changed and then put in the place of the original.
class restrictions {
  public:
    /// Newest first.
    std::deque<restriction> &entries() { return entries_; }
    const std::deque<restriction> &entries() const { return entries_; }

    /// Null for none. Constant time.
    const restriction *find(const host_id &id) const;
    bool blocks(const host_id &id) const;

    /// The host's entry with that kind set, not applied yet; it is made when there is none.
    restriction &entry_with(restriction_kind kind, std::string_view mac);
    /// Takes a kind out of every entry; entries without another go.
    void drop(restriction_kind kind);
    /// Takes out the oldest entries that restrict nothing, until there are `max`, but none that lifts a rate
    /// limit for the first time since `before`: it is yet to be applied.
    void make_room(std::size_t max, const restrictions &before);

    /// Takes over what a file holds, a line for each host. Of a line that does not parse, the fields found
    /// are taken and the others are 0; of several for one host the last counts for each kind.
    void load(std::string_view file);
    /// What the file is to hold: the newest first, so that a load turns the order round.
    std::string text() const;

  private:
    restriction &entry_of(std::string_view mac);
    void index();
    std::size_t place(std::size_t older) const { return entries_.size() - 1 - older; }

    std::deque<restriction> entries_;
    std::unordered_map<host_id, std::size_t> by_host_;  ///< how many are older
};

}  // namespace arvok::access
