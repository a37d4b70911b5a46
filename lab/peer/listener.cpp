#include "listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

extern "C" {
#include <libubox/usock.h>
}

namespace arvok::lab {

std::string text_of(const sockaddr_in &address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

Listener::Listener(std::string address, std::string port, const Traffic &traffic,
                   std::function<void(int, const sockaddr_in &)> arrived)
    : address_(std::move(address)),
      port_(std::move(port)),
      traffic_(traffic),
      arrived_(std::move(arrived)),
      socket_([this](unsigned) { accept_one(); }),
      again_([this] {
          if (!listen(true))
              again_.set(1000);
      }) {}

bool Listener::listen(bool wanted) {
    again_.cancel();
    if (!wanted) {
        socket_.close();
        return true;
    }
    if (listening())
        return true;
    const int descriptor = usock(USOCK_TCP | USOCK_SERVER | USOCK_IPV4ONLY | USOCK_NUMERIC | USOCK_NONBLOCK,
                                 address_.c_str(), port_.c_str());
    if (descriptor < 0)
        return false;
    socket_.open(descriptor, ULOOP_READ);
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    getsockname(descriptor, reinterpret_cast<sockaddr *>(&bound), &size);
    // Port 0 leaves the choice to the system; keep it, so that a later reopening finds the same.
    port_ = std::to_string(ntohs(bound.sin_port));
    traffic_.event(0, "listening on " + text_of(bound));
    return true;
}

void Listener::accept_one() {
    sockaddr_in remote{};
    socklen_t size = sizeof remote;
    const int descriptor = accept4(socket_.descriptor(), reinterpret_cast<sockaddr *>(&remote), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor >= 0)
        return arrived_(descriptor, remote);
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        traffic_.event(0, std::string("cannot accept a connection: ") + std::strerror(errno));
        socket_.close();
        again_.set(1000);
    }
}

}  // namespace arvok::lab
