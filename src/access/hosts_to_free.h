#pragma once
/// Hosts whose access is to be given back as soon as the platform lists them, the oldest first.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "access/host_id.h"

namespace arvok::access {

class hosts_to_free {
  public:
    /// As many as there are hosts with restrictions. One more costs the oldest its place: who has not come
    /// back for so long may not come at all, and nobody is refused for it.
    static constexpr std::size_t max = 4096;

    hosts_to_free() = default;
    explicit hosts_to_free(const std::vector<host_id> &ids);

    bool empty() const { return ages_.empty(); }
    std::size_t size() const { return ages_.size(); }
    bool contains(const host_id &id) const { return ages_.contains(id); }
    bool operator==(const hosts_to_free &other) const;

    /// A host without a MAC is none.
    void add(const host_id &id);
    void add(const hosts_to_free &others);
    void remove(const host_id &id);

    /// Takes over what a file holds, a host a line.
    void load(std::string_view file);
    std::string text() const;

  private:
    std::map<std::uint64_t, host_id> by_age_;
    std::unordered_map<host_id, std::uint64_t> ages_;
};

}  // namespace arvok::access
