/// The control file of an app's package: lines "Name: value".
#ifndef ARVOK_QZCAPD_CONTROL_FILE_H
#define ARVOK_QZCAPD_CONTROL_FILE_H

#include <string>

namespace arvok::qzcapd {

/// The value of the first line of that name, without blanks around it; empty when there is none.
std::string control_field(const std::string &control, const std::string &name);

/// 1 to 31 letters, digits, dots, underscores and hyphens, the first a letter or digit, no "..", and not the
/// name of the folder in which the app manager keeps its own files: names become file names.
bool is_app_name(const std::string &name);

/// Whether a version is a text that fits in a line of a control file: 1 to 63 visible ASCII characters.
bool is_app_version(const std::string &version);

/// A regular file of at most 64 KiB as text; empty when it is none. A link is not followed.
std::string read_control(const std::string &path);

}  // namespace arvok::qzcapd

#endif
