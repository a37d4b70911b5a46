#pragma once
/// The version of the platform's own software, as the device reports it.

#include <optional>
#include <string>
#include <string_view>

namespace arvok::platform {

class middleware {
  public:
    /// The version text "TUL1.0_QZ_<vendor>_<architecture>_<application version>" in upper case, from the
    /// vendor's name up to its first space and from the platform's version command, which is run once a
    /// minute at most.
    std::string version(std::string_view vendor);

  private:
    std::string told_;                ///< by the command
    std::optional<long> asked_at_s_;  ///< uptime
};

}  // namespace arvok::platform
