#pragma once
/// The version of the platform's own software, as the device reports it.

#include <string>
#include <string_view>

namespace arvok::platform {

/// The version text "TUL1.0_QZ_<vendor>_<architecture>_<application version>" in upper case, from the
/// vendor's name up to its first space and from the platform's version command.
std::string middleware_version(std::string_view vendor);

}  // namespace arvok::platform
