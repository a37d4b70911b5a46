#pragma once
/// Blocking and rate limits of LAN hosts, in memory and in their file.

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace arvok::access {

/// Bits of restriction::kinds.
enum restriction_kind : std::uint32_t { restricts_rate = 1, restricts_internet = 2 };

/// What one host is restricted to.
struct restriction {
    std::string mac;
    std::uint32_t kinds = 0;       ///< restriction_kind bits: what is set
    std::uint32_t internet = 0;    ///< internet_access; with restricts_internet
    std::uint32_t up_limit = 0;    ///< with restricts_rate
    std::uint32_t down_limit = 0;  ///< with restricts_rate
    std::uint32_t applied = 0;     ///< the kinds that the platform took last; 0: none yet
};

class restrictions {
  public:
    /// Loads the file of the folder, which ends with a slash. A missing file holds nothing; of a line that
    /// does not parse, the fields found are taken and the others are empty.
    explicit restrictions(const std::string &folder);
    restrictions(const restrictions &) = delete;
    restrictions &operator=(const restrictions &) = delete;

    /// Newest first.
    std::list<restriction> &entries() { return entries_; }
    const std::list<restriction> &entries() const { return entries_; }

    /// Whether the newest entry of the host of that MAC blocks it. Constant time.
    bool blocks(std::string_view mac) const;

    /// The host's entry with that kind set; it is made when there is none.
    restriction &entry_with(restriction_kind kind, std::string_view mac);
    /// Takes a kind out of every entry; entries without another go.
    void drop(restriction_kind kind);
    /// Rewrites the file.
    void save() const;

  private:
    /// The newest entry of a MAC, ignoring case; null for none.
    restriction *find(std::string_view mac) const;
    restriction &add(std::string_view mac);
    void load();

    const std::string path_;
    std::list<restriction> entries_;
    std::unordered_map<std::string, restriction *> newest_;  ///< by upper-case MAC
};

}  // namespace arvok::access
