// The socket that clients come to, and the clients that have come.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "bus.h"
#include "client.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

class Server {
  public:
    Server();
    /// Disconnects everybody and removes the socket from the file system, if it is still this one.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /// Listens at `path`, in a directory that is made when it is missing; replaces a socket that nobody
    /// serves. On failure `error` says why.
    bool listen(const std::string &path, std::string &error);

  private:
    struct Watch : uloop_fd {
        Server *server;
    };
    struct Timer : uloop_timeout {
        Server *server;
    };

    void accept();
    void reap();

    Bus bus_;
    Client::Events events_;
    std::map<uint32_t, std::unique_ptr<Client>> clients_;
    std::string path_;
    ino_t inode_ = 0;
    Watch listener_{};
    Timer resume_{};  // listens again after running out of descriptors
    Timer reaper_{};  // destroys those who are over, outside of their own callbacks
};

}  // namespace arvok
