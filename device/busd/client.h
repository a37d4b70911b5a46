// One connection to the daemon.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "frame.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

/// Reads whole messages off a socket and passes on what it is given to send, without ever blocking. A client
/// whose bytes make no sense, or that has gone, is over: it does nothing from then on and waits for its owner
/// to destroy it.
class Client {
  public:
    /// `on_message` gets each message that arrives, `on_over` comes once; neither may destroy the client.
    struct Events {
        std::function<void(Client &, const Message &)> on_message;
        std::function<void(Client &)> on_over;
    };

    /// Takes over the socket.
    Client(int socket, uint32_t id, const Events &events);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /// Sends or queues; a null frame is nothing. What a client that does not read has no room for is dropped.
    void send(const Frame &frame);

    bool over() const { return over_; }

    const uint32_t id;
    std::string user;  ///< of the process at the other end; its number where it has no name
    std::string group;
    std::vector<uint32_t> objects;  ///< ids of what it has on the bus, in the order they came

  private:
    struct Watch : uloop_fd {
        Client *client;
    };

    void name_peer();
    void read();
    bool read_until(size_t size);
    void write();
    void end();

    Watch watch_{};
    const Events &events_;
    bool over_ = false;
    bool deaf_ = false;  // takes nothing any more; what it has sent is still read
    bool waiting_to_write_ = false;
    std::vector<uint8_t> input_;
    std::deque<Frame> output_;
    size_t output_sent_ = 0;   // bytes of the first frame that are sent
    size_t output_bytes_ = 0;  // bytes of all frames that are not sent
};

}  // namespace arvok
