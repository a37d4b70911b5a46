/// A listening TCP socket of a peer: opened and closed as the faults want it, back by itself after the system
/// ran out of descriptors.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>

#include "loop.h"
#include "traffic.h"

namespace arvok::lab {

/// "1.2.3.4:5".
std::string text_of(const sockaddr_in &address);

class Listener {
  public:
    /// `arrived` gets every new connection's descriptor, which it owns, and who is at the other end.
    Listener(std::string address, std::string port, const Traffic &traffic,
             std::function<void(int descriptor, const sockaddr_in &remote)> arrived);

    /// Opens or closes the socket. False, with errno, when it cannot be opened.
    bool listen(bool wanted);

    bool listening() const { return socket_.descriptor() >= 0; }
    const std::string &address() const { return address_; }
    /// The port; once it has been open, the one that the system chose for 0.
    const std::string &port() const { return port_; }

  private:
    void accept_one();

    std::string address_, port_;
    const Traffic &traffic_;
    std::function<void(int, const sockaddr_in &)> arrived_;
    Watch socket_;
    Timer again_;
};

}  // namespace arvok::lab
