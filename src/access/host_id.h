#pragma once
/// Which host a rule is about.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace arvok::access {

/// A MAC as the rules keep and tell it: as it was given where it is one, in whatever spelling. Any other text
/// is cut to 15 bytes of whole characters, and what the files have a meaning for becomes a blank.
std::string kept_mac(std::string_view given);

/// The same host, however its MAC is spelled; what is no MAC is compared as it is kept, ignoring case.
class host_id {
  public:
    explicit host_id(std::string_view mac);

    /// Twelve upper-case digits, or the kept text in upper case.
    const std::string &text() const { return text_; }
    bool operator==(const host_id &) const = default;

  private:
    std::string text_;
};

}  // namespace arvok::access

template <>
struct std::hash<arvok::access::host_id> {
    std::size_t operator()(const arvok::access::host_id &id) const noexcept {
        return std::hash<std::string>()(id.text());
    }
};
