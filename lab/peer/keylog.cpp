#include "keylog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "hex.h"
#include "listener.h"
#include "traffic.h"

namespace arvok::lab {

KeyLog::~KeyLog() {
    if (descriptor_ >= 0)
        close(descriptor_);
}

bool KeyLog::open(const char *path) {
    descriptor_ = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    return descriptor_ >= 0;
}

std::string KeyLog::ends_of(int descriptor, const sockaddr_in &remote) {
    sockaddr_in local{};
    socklen_t size = sizeof local;
    getsockname(descriptor, reinterpret_cast<sockaddr *>(&local), &size);
    return text_of(remote) + " " + text_of(local);
}

void KeyLog::add(const std::string &ends, const char *kind, std::string_view value) const {
    write(ends + " " + kind + " " + to_hex(value, hex_lower));
}

void KeyLog::add(const std::string &ends, const char *kind, std::string_view mark,
                 std::string_view value) const {
    write(ends + " " + kind + " " + to_hex(mark, hex_lower) + " " + to_hex(value, hex_lower));
}

// In one piece, so that the lines of two programs do not mix.
void KeyLog::write(std::string line) const {
    if (descriptor_ < 0)
        return;
    line = std::string(protocol_) + " " + std::move(line) + "\n";
    if (::write(descriptor_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        log_line(std::string("the key log lacks a line: ") + std::strerror(errno));
}

}  // namespace arvok::lab
