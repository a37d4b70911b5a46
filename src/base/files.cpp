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

std::string read_whole(std::FILE *file, std::size_t size) {
    std::string content;
    char part[4096];
    while (content.size() < size) {
        const std::size_t read = std::fread(part, 1, std::min(sizeof part, size - content.size()), file);
        if (read == 0)
            break;
        content.append(part, read);
    }
    return content;
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

// What stands in the file's place may be anything: nobody waits for the other end of a pipe.
descriptor open_old(const std::string &path) {
    return descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// A file system that cannot do that with a folder has no need to.
int sync_folder(const descriptor &folder) {
    return fsync(folder.get()) == 0 || errno == EINVAL ? 0 : errno;
}

// Puts back what a descriptor still has of the file that was there; nobody is told when that fails as well.
void put_back(const std::string &path, const descriptor &old) {
    std::string content;
    char part[4096];
    struct stat is {};
    if (old)
        fstat(old.get(), &is);
    for (ssize_t size;
         static_cast<off_t>(content.size()) < is.st_size && (size = read(old.get(), part, sizeof part)) > 0;)
        content.append(part, static_cast<std::size_t>(size));
    if (old)
        replace(path, copy_path(path), content);
    else
        unlink(path.c_str());
}

std::optional<std::string> reason_of(int error) {
    return error == 0 ? std::nullopt : std::optional<std::string>(std::strerror(error));
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

std::optional<std::string> save_file(const std::string &path, std::string_view content) {
    const descriptor old = open_old(path);
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
    const descriptor old = open_old(path);
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
