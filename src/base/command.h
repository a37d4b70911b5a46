#pragma once
/// Helper programs of the device.

#include <cstddef>
#include <optional>
#include <string>

namespace arvok {

/// What a shell command prints up to its first line feed, with it; at most `size` bytes. Nothing when it
/// cannot be started.
///
/// The caller waits. A command that has not told its line in two seconds is killed, with what it started; so
/// is one that does not end when it has told it.
std::optional<std::string> command_output(const char *command, std::size_t size);

}  // namespace arvok
