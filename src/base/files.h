#pragma once
/// Small whole files, package control files, and the output of commands.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace arvok {

bool file_exists(const std::string &path);

/// What a file that is read may be instead of a text: none is there, or the system cannot tell and says why.
/// Who takes the one for the other forgets what may still be on the disk.
struct no_file {
    bool operator==(const no_file &) const = default;
};
struct unreadable_file {
    std::string why;
    bool operator==(const unreadable_file &) const = default;
};
using file_content = std::variant<std::string, no_file, unreadable_file>;

/// At most `size` bytes from the beginning of the file. What is no regular file counts as none, and nobody
/// waits for the other end of a pipe.
file_content read_file(const std::string &path, std::size_t size);

/// Replaces the whole file and is back when it is on the disk. Nothing, or the system's reason why not: the
/// file is as it was then, unless the disk refuses that as well. Whenever the power goes, the file is the old
/// or the new one. What is written first stands beside the file, under its name and ".bk"; one that is left
/// there does no harm.
std::optional<std::string> save_file(const std::string &path, std::string_view content);

/// Removes the file, if there is one, from the disk too. Nothing, or the system's reason why not, likewise.
std::optional<std::string> remove_file(const std::string &path);

/// The value of the first line named `key` of an opkg control file ("Name: value" lines, '#' comments); empty
/// when the file or the line is missing.
std::string control_value(const std::string &path, std::string_view key);

}  // namespace arvok
