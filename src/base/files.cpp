#include "base/files.h"

#include <unistd.h>

#include <cstdio>

#include "base/handle.h"

namespace arvok {
namespace {

constexpr int control_line_max = 1024;

// What pclose answers says nothing here; the output does.
using pipe_handle = handle<std::FILE, &::pclose>;

std::string read_whole(std::FILE *file, std::size_t size) {
    std::string content(size, '\0');
    content.resize(std::fread(content.data(), 1, size, file));
    return content;
}

}  // namespace

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

std::optional<std::string> read_file(const std::string &path, std::size_t size) {
    const file_handle file(std::fopen(path.c_str(), "re"));
    if (!file)
        return std::nullopt;
    return read_whole(file.get(), size);
}

bool write_file(const std::string &path, std::string_view content) {
    const file_handle file(std::fopen(path.c_str(), "we"));
    return file && std::fwrite(content.data(), 1, content.size(), file.get()) == content.size() &&
           std::fflush(file.get()) == 0;
}

std::string control_value(const std::string &path, std::string_view key) {
    const file_handle file(std::fopen(path.c_str(), "re"));
    char line[control_line_max], name[128], value[control_line_max];
    while (file && std::fgets(line, sizeof line, file.get())) {
        if (line[0] == '#')
            continue;
        if (std::sscanf(line, "%127[^:]%*[: \t]%1023[^\n]", name, value) == 2 && key == name)
            return value;
    }
    return {};
}

std::optional<std::string> command_output(const char *command, std::size_t size) {
    const pipe_handle output(popen(command, "re"));
    if (!output)
        return std::nullopt;
    return read_whole(output.get(), size);
}

}  // namespace arvok
