#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/handle.h"

namespace arvok {
namespace {

constexpr int control_line_max = 1024;

// What stands in a file's place may be anything: nobody waits for the other end of a pipe.
descriptor open_there(const std::string &path) {
    return descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// Adds what there is, up to `size` bytes in all. False when the system refuses.
bool read_all(int fd, std::size_t size, std::string &content) {
    char part[4096];
    while (content.size() < size) {
        const ssize_t count = read(fd, part, std::min(sizeof part, size - content.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        content.append(part, static_cast<std::size_t>(count));
    }
    return true;
}

// --- saving; each returns 0 or the system's error number ---

constexpr mode_t for_everybody = 0666;  // less what the process takes away

int error_of(bool done) {
    return done ? 0 : errno;
}

int write_all(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : ENOSPC;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

int write_new(const std::string &path, std::string_view content) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT)  // whatever it is that was left there
        return errno;
    descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, for_everybody));
    if (!file)
        return errno;
    int error = write_all(file.get(), content);
    if (error == 0)
        error = error_of(fsync(file.get()) == 0);
    if (close(file.release()) != 0 && error == 0)
        error = errno;
    return error;
}

int replace(const std::string &path, const std::string &fresh, std::string_view content) {
    int error = write_new(fresh, content);
    if (error == 0)
        error = error_of(std::rename(fresh.c_str(), path.c_str()) == 0);
    if (error != 0)
        unlink(fresh.c_str());
    return error;
}

descriptor open_folder_of(const std::string &path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    return descriptor(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string copy_path(const std::string &path) {
    return path + ".bk";
}

// A file system that cannot do that with a folder has no need to.
int sync_folder(const descriptor &folder) {
    return fsync(folder.get()) == 0 || errno == EINVAL ? 0 : errno;
}

// Puts back what a descriptor still has of the file that was there; nobody is told when that fails as well.
void put_back(const std::string &path, const descriptor &old) {
    if (!old) {
        unlink(path.c_str());
        return;
    }
    std::string content;
    struct stat is {};
    fstat(old.get(), &is);
    if (read_all(old.get(), static_cast<std::size_t>(is.st_size), content))
        replace(path, copy_path(path), content);
}

std::optional<std::string> reason_of(int error) {
    return error == 0 ? std::nullopt : std::optional<std::string>(std::strerror(error));
}

}  // namespace

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

file_content read_file(const std::string &path, std::size_t size) {
    const descriptor file = open_there(path);
    struct stat is {};
    std::string content;
    if (!file && errno == ENOENT)
        return no_file();
    if (!file || fstat(file.get(), &is) != 0)
        return unreadable_file{std::strerror(errno)};
    if (!S_ISREG(is.st_mode))
        return no_file();
    if (!read_all(file.get(), size, content))
        return unreadable_file{std::strerror(errno)};
    return content;
}

std::optional<std::string> save_file(const std::string &path, std::string_view content) {
    const descriptor old = open_there(path);
    if (!old && errno != ENOENT)
        return reason_of(errno);
    const descriptor folder = open_folder_of(path);
    if (!folder)
        return reason_of(errno);
    int error = replace(path, copy_path(path), content);
    if (error == 0 && (error = sync_folder(folder)) != 0)
        put_back(path, old);
    return reason_of(error);
}

std::optional<std::string> remove_file(const std::string &path) {
    const descriptor old = open_there(path);
    if (!old)
        return errno == ENOENT ? std::nullopt : reason_of(errno);
    const descriptor folder = open_folder_of(path);
    if (!folder || unlink(path.c_str()) != 0)
        return reason_of(errno);
    const int error = sync_folder(folder);
    if (error != 0)
        put_back(path, old);
    return reason_of(error);
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

}  // namespace arvok
