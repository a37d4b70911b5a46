#pragma once
/// The local control server: a TCP server for management clients on the LAN, which tells them who the device
/// is.
///
/// A frame, in both directions, is a u32 length in network byte order and a body of 1 to body_max bytes of
/// JSON text. Each client may send any number of requests; replies come in their order. There is room for 96
/// clients, 64 of them from one address: where that is taken, the one longest idle goes when another one
/// comes. Of replies that clients do not take, 1 MiB waits in all: beyond that the one with most of it goes.
/// Everything runs on the loop thread.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/loop.h"
#include "base/memory.h"
#include "platform/cache.h"

namespace arvok::local {

class server {
  public:
    /// `port` is a decimal number; empty: 17998. Clients are told the MAC that `cache` knows when they ask.
    server(const platform::cache &cache, std::string port);
    /// Stops listening and closes every client. Not from a client's request.
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    /// Listens at all addresses. False, after a log line, when the port cannot be had.
    bool start();

  private:
    class client;

    void accept_client();
    void resume();
    static std::size_t room();
    void make_room(in_addr address);
    void bound_output();

    const platform::cache &cache_;
    const std::string port_;
    descriptor listener_;
    readable_watch watch_;
    timer accept_pause_;         ///< ends the pause that a failure to accept makes
    std::uint64_t heard_ = 0;    ///< numbers what is heard of clients
    memory_return memory_;       ///< of clients that have gone
    std::list<client> clients_;  ///< a closed one stays until its stream has been taken down
};

}  // namespace arvok::local
