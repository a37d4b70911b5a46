#include "server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "requests.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok {

namespace {

constexpr int RESUME_MS = 1000;
constexpr int CLIENTS_PER_TURN = 32;

// Whether something at `path` is in the way. A socket that nobody serves any more is removed.
bool in_the_way(const std::string &path, std::string &error) {
    struct stat status {};

    if (lstat(path.c_str(), &status) < 0)
        return false;
    if (!S_ISSOCK(status.st_mode)) {
        error = path + " exists and is not a socket";
        return true;
    }
    const int probe = usock(USOCK_UNIX | USOCK_NONBLOCK, path.c_str(), nullptr);
    const bool served = probe >= 0 || errno == EAGAIN;
    if (probe >= 0)
        close(probe);
    if (served) {
        error = path + " is in use by another daemon";
        return true;
    }
    unlink(path.c_str());
    return false;
}

}  // namespace

Server::Server() {
    events_.on_message = [this](Client &client, const Message &message) {
        handle_message(bus_, client, message);
    };
    events_.on_over = [this](Client &) { uloop_timeout_set(&reaper_, 0); };
    listener_.fd = -1;
    listener_.server = this;
    listener_.cb = [](uloop_fd *fd, unsigned int) { static_cast<Watch *>(fd)->server->accept(); };
    resume_.server = this;
    resume_.cb = [](uloop_timeout *timer) {
        uloop_fd_add(&static_cast<Timer *>(timer)->server->listener_, ULOOP_READ);
    };
    reaper_.server = this;
    reaper_.cb = [](uloop_timeout *timer) { static_cast<Timer *>(timer)->server->reap(); };
}

Server::~Server() {
    struct stat status {};

    uloop_timeout_cancel(&resume_);
    uloop_fd_delete(&listener_);
    if (listener_.fd >= 0) {
        close(listener_.fd);
        if (lstat(path_.c_str(), &status) == 0 && status.st_ino == inode_)
            unlink(path_.c_str());
    }
    clients_.clear();
    uloop_timeout_cancel(&reaper_);
}

bool Server::listen(const std::string &path, std::string &error) {
    std::error_code failure;
    struct stat status {};
    const auto directory = std::filesystem::path(path).parent_path();

    if (!directory.empty())
        std::filesystem::create_directory(directory, failure);  // no more: a mistyped path is an error
    if (failure) {
        error = "cannot make " + directory.string() + ": " + failure.message();
        return false;
    }
    if (in_the_way(path, error))
        return false;
    listener_.fd = usock(USOCK_UNIX | USOCK_SERVER | USOCK_NONBLOCK, path.c_str(), nullptr);
    if (listener_.fd < 0 || uloop_fd_add(&listener_, ULOOP_READ) < 0) {
        error = "cannot listen at " + path + ": " + std::strerror(errno);
        return false;
    }
    path_ = path;
    if (lstat(path.c_str(), &status) == 0)
        inode_ = status.st_ino;
    return true;
}

void Server::accept() {
    for (int i = 0; i < CLIENTS_PER_TURN; i++) {
        const int socket = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket < 0) {
            // Without descriptors the loop would report the waiting client for ever.
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                uloop_fd_delete(&listener_);
                uloop_timeout_set(&resume_, RESUME_MS);
            }
            return;
        }
        auto client = std::make_unique<Client>(socket, bus_.new_client_id(), events_);
        bus_.join(*client);
        clients_[client->id] = std::move(client);
    }
}

void Server::reap() {
    // Telling the others that a client has left may end some of them.
    for (auto entry = clients_.begin(); entry != clients_.end();) {
        if (!entry->second->over()) {
            ++entry;
            continue;
        }
        bus_.leave(*entry->second);
        entry = clients_.erase(entry);
    }
}

}  // namespace arvok
