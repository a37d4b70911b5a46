#include "base/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "base/descriptor.h"

extern char **environ;

namespace arvok {
namespace {

using milliseconds = std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

// Nothing else goes on meanwhile, and a peer waits for its answer.
constexpr milliseconds answer_max{2000};
// A program that has told its line has only to end.
constexpr milliseconds end_max{50};

struct spawn_attributes {
    posix_spawnattr_t value;
    posix_spawn_file_actions_t actions;

    // A process group of its own, so that what the shell starts can be killed, too; signals as they are at a
    // start.
    explicit spawn_attributes(int output) {
        posix_spawnattr_init(&value);
        posix_spawn_file_actions_init(&actions);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&value, &none);
        posix_spawnattr_setsigdefault(&value, &all);
        posix_spawnattr_setpgroup(&value, 0);
        posix_spawnattr_setflags(&value,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    ~spawn_attributes() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&value);
    }
    spawn_attributes(const spawn_attributes &) = delete;
    spawn_attributes &operator=(const spawn_attributes &) = delete;
};

// The process, or -1.
pid_t start(const char *command, int output) {
    const spawn_attributes attributes(output);
    char shell[] = "sh", option[] = "-c";
    char *const arguments[] = {shell, option, const_cast<char *>(command), nullptr};
    pid_t started;
    return posix_spawn(&started, "/bin/sh", &attributes.actions, &attributes.value, arguments, environ) == 0
               ? started
               : -1;
}

std::string read_line(int fd, std::size_t size) {
    const steady::time_point end = steady::now() + answer_max;
    std::string line;
    while (line.size() < size && !line.ends_with('\n')) {
        const auto left = std::chrono::ceil<milliseconds>(end - steady::now()).count();
        pollfd more{fd, POLLIN, 0};
        const int ready = left > 0 ? poll(&more, 1, static_cast<int>(left)) : 0;
        if (ready == 0)
            break;
        char next;
        const ssize_t got = ready > 0 ? read(fd, &next, 1) : -1;
        if (got == 1)
            line += next;
        else if (got == 0 || errno != EINTR)
            break;
    }
    return line;
}

bool has_ended(pid_t process) {
    return waitpid(process, nullptr, WNOHANG) != 0;  // also when somebody else has taken its status
}

void see_to_its_end(pid_t process) {
    for (auto waited = milliseconds(0); waited < end_max; waited += milliseconds(1)) {
        if (has_ended(process))
            return;
        poll(nullptr, 0, 1);
    }
    kill(-process, SIGKILL);
    while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

std::optional<std::string> command_output(const char *command, std::size_t size) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    const descriptor from(ends[0]);
    descriptor to(ends[1]);
    const pid_t process = start(command, to.get());
    if (process < 0)
        return std::nullopt;
    to.reset();
    std::string line = read_line(from.get(), size);
    see_to_its_end(process);
    return line;
}

}  // namespace arvok
