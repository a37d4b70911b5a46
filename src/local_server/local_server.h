#pragma once
/// The local control server: a TCP server for management clients on the LAN, which tells them who the device
/// is.
///
/// A frame, in both directions, is a u32 length in network byte order and a body of 1 to max_body bytes of
/// JSON text. Any number of clients may be connected, and each may send any number of requests; replies come
/// in their order. Everything runs on the loop thread.

#include <cstdint>
#include <list>
#include <memory>

#include "common/json.h"
#include "common/stream.h"

namespace arvok {

struct local_client;
using local_clients = std::list<std::unique_ptr<local_client>>;

/// One connection.
struct local_client {
    tcp_stream stream;
    std::int32_t pending_len;       ///< body length of a frame whose header has been read; 0: none
    local_clients::iterator place;  ///< in the server's list

    local_client() = default;
    local_client(const local_client &) = delete;
    ~local_client() { stream_release(stream); }
};

struct local_server {
    uloop_fd listener;           ///< its descriptor is -1 while the server is stopped
    uloop_timeout accept_pause;  ///< ends the pause that a failure to accept makes
    local_clients clients;       ///< a closed one stays until its stream has been taken down
};

extern local_server *const ls;

/// Sets up the record. Once, before ls_run.
void ls_init();
/// Listens at the port given by the user, or at 17998. A port that cannot be had ends the process with exit
/// status 255: the agent does not run without it.
void ls_run();
/// Stops listening and closes every client.
void ls_done();

void ls_server_start();
void ls_server_stop();

/// Closes a client, whose record goes with its connection, later when this is called from a request of its
/// own.
void ls_close_client(local_client &client);

/// Replies to a request of a client that may have gone; `item`, when there is one, goes under `key`.
void ls_reply(local_client &client, const cJSON *request, int result, const char *key = nullptr,
              json_ptr item = nullptr);

}  // namespace arvok
