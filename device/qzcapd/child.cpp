#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace arvok::qzcapd {
namespace {

constexpr int not_started = 127;  // exit status of a program that is not there
constexpr char complaints[] = "complaints";
constexpr std::size_t longest_complaint = 200;

/// In the new process: nothing but system calls from here on.
[[noreturn]] void become(const Command &command, char *const *argv, char *const *environment,
                         const char *folder) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    const rlimit size{command.largest_file, command.largest_file};
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_FSIZE, &size);
    setrlimit(RLIMIT_CORE, &no_core);
    const auto stand_in = [](const char *path, int standard_fd) {
        const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOCTTY, 0600);
        return fd >= 0 && dup2(fd, standard_fd) == standard_fd;
    };
    if (chdir(folder) != 0 || !stand_in("/dev/null", STDIN_FILENO) ||
        !stand_in(command.output.empty() ? "/dev/null" : command.output.c_str(), STDOUT_FILENO) ||
        !stand_in(complaints, STDERR_FILENO)) {
        _exit(not_started);
    }
    close_range(STDERR_FILENO + 1, ~0U, 0);
    execvpe(argv[0], argv, environment);
    _exit(not_started);
}

/// The first line with anything in it that the program has complained with.
std::string complaint(const std::string &folder) {
    std::ifstream file(folder + "/" + complaints);
    char line[longest_complaint] = "";
    file >> std::ws;
    file.get(line, sizeof(line));
    return line;
}

}  // namespace

Child::~Child() {
    uloop_timeout_cancel(&timer_);
    if (process_.pending) {
        uloop_process_delete(&process_);
        kill_all();
        waitpid(process_.pid, nullptr, 0);
    }
}

bool Child::start(const Command &command, const std::string &folder, Done done) {
    command_ = command;
    folder_ = folder;
    std::vector<char *> argv;
    for (std::string &word : command_.words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    // No proxy of the machine's, and complaints in one language.
    const char *path = std::getenv("PATH");
    std::string search = std::string("PATH=") + (path != nullptr ? path : "/usr/bin:/bin");
    std::string language = "LC_ALL=C";
    char *const environment[] = {search.data(), language.data(), nullptr};
    const pid_t pid = fork();
    if (pid == 0) {
        become(command_, argv.data(), environment, folder_.c_str());
    }
    if (pid < 0) {
        return false;
    }
    setpgid(pid, pid);  // whoever comes first
    done_ = std::move(done);
    process_.pid = pid;
    process_.cb = on_end;
    uloop_process_add(&process_);
    timer_.cb = [](uloop_timeout *timer) {
        auto *self = decltype(timer_)::of(timer);
        self->late_ = true;
        self->kill_all();
    };
    uloop_timeout_set(&timer_, command_.seconds * 1000);
    return true;
}

void Child::on_end(uloop_process *process, int status) {
    auto *self = decltype(process_)::of(process);
    uloop_timeout_cancel(&self->timer_);
    const std::string fault = self->fault(status);
    const Done done = std::move(self->done_);
    done(fault);  // self may be gone now
}

std::string Child::fault(int status) const {
    const std::string &program = command_.words[0];
    if (late_) {
        return "no end after " + std::to_string(command_.seconds) + " seconds";
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) {
        return "larger than " + std::to_string(command_.largest_file) + " bytes";
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return "";
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == not_started) {
        return program + " cannot be started";
    }
    const std::string said = complaint(folder_);
    return !said.empty() ? said : program + " failed";
}

void Child::kill_all() const {
    kill(-process_.pid, SIGKILL);
    kill(process_.pid, SIGKILL);
}

}  // namespace arvok::qzcapd
