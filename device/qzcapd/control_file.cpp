#include "control_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace arvok::qzcapd {
namespace {

constexpr std::size_t longest_name = 31;
constexpr std::size_t longest_version = 63;
constexpr std::size_t largest_control = 65536;
constexpr std::string_view blanks = " \t\r";

}  // namespace

std::string control_field(const std::string &control, const std::string &name) {
    for (std::size_t start = 0; start < control.size();) {
        const std::size_t end = std::min(control.find('\n', start), control.size());
        const std::string_view line(control.data() + start, end - start);
        start = end + 1;
        if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == ':') {
            const std::string_view value = line.substr(name.size() + 1);
            const std::size_t first = value.find_first_not_of(blanks);
            return first == value.npos
                       ? ""
                       : std::string(value.substr(first, value.find_last_not_of(blanks) + 1 - first));
        }
    }
    return "";
}

bool is_app_name(const std::string &name) {
    const auto alphanumeric = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    };
    const auto allowed = [&](char c) { return alphanumeric(c) || c == '.' || c == '_' || c == '-'; };
    return !name.empty() && name.size() <= longest_name && alphanumeric(name[0]) &&
           std::ranges::all_of(name, allowed) && name.find("..") == name.npos && name != "qzcap";
}

bool is_app_version(const std::string &version) {
    return !version.empty() && version.size() <= longest_version &&
           std::ranges::all_of(version, [](char c) { return c > ' ' && c <= '~'; });
}

std::string read_control(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    std::string text;
    if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::size_t>(status.st_size) <= largest_control) {
        text.resize(static_cast<std::size_t>(status.st_size));
        const ssize_t length = read(fd, text.data(), text.size());
        text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    if (fd >= 0) {
        close(fd);
    }
    return text;
}

}  // namespace arvok::qzcapd
