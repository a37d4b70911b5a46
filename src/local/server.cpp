#include "local/server.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "base/base64.h"
#include "base/frame_reader.h"
#include "base/json.h"
#include "base/log.h"
#include "base/stream.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok::local {
namespace {

constexpr char any_address[] = "0.0.0.0", default_port[] = "17998";
constexpr int accept_pause_ms = 1000;

// A client may take 20 KiB, a buffer full of requests and replies: all of them together stay below 2 MiB, and
// a host that takes all that it may have leaves half as many to the others.
constexpr std::size_t clients_max = 96, clients_of_address_max = 64;

// Descriptors that clients leave to the agent: some 20 that stay open, and files, commands, server names.
constexpr rlim_t own_descriptors = 32;

// A client that does not take its replies is read again when it has taken them down to this.
constexpr std::size_t unsent_max = 4096;

// A reply may be longer than that, for it repeats what the client said, with escapes. All together wait in no
// more than this.
constexpr std::size_t unsent_of_all_max = std::size_t{1024} * 1024;

// The one command, and what it tells beside the MAC.
constexpr char identity_command[] = "GET_SN_INFO";
constexpr char device_type[] = "1";
constexpr char protocol_version[] = "V2019.1.0";

// --- frames ---

using frame_length = std::uint32_t;

std::optional<std::size_t> body_length(std::string_view header) {
    frame_length length;
    std::memcpy(&length, header.data(), sizeof length);
    length = ntohl(length);
    if (length < 1 || length > body_max) {
        log_printf("[ERROR] (local) invalid msg header, %d\n", static_cast<int>(length));
        return std::nullopt;
    }
    return length;
}

constexpr frame_format format_of_frames{
    .header_size = sizeof(frame_length),
    .body_length = body_length,
    .short_header = "[ERROR] (local) read header failed, %d\n",
    .waiting = "[INFO] (local) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (local) read msg failed, %d %d\n",
};

std::string frame_of(const std::string &body) {
    const frame_length length = htonl(static_cast<frame_length>(body.size()));
    return std::string(reinterpret_cast<const char *>(&length), sizeof length).append(body);
}

// --- requests ---

// A Post1 command, as far as it can be read, and what is wrong with it; empty when it is right.
struct command {
    json::document message;
    std::string_view fault;
};

command read_command(json::view request) {
    const auto parameter = request["Parameter"].text();
    if (!parameter)
        return {{}, "invalid Parameter"};
    const std::optional<std::string> text = base64_decode(*parameter);
    if (!text)
        return {{}, "Parameter base64 encode failed"};  // that is its wording
    command read{json::parse(*text), {}};
    if (read.message["CmdType"].text() != identity_command)
        read.fault = "invalid CmdType";
    else if (!read.message["SequenceId"].text())
        read.fault = "invalid seq";
    return read;
}

json::value post1(json::view request, std::string_view own_mac) {
    const command asked = read_command(request);
    json::object answer;
    answer.text("CmdType", identity_command);
    if (const auto sequence = asked.message["SequenceId"].text())
        answer.text("SequenceId", *sequence);
    answer.number("Status", asked.fault.empty() ? 0 : 1);
    if (!asked.fault.empty())
        answer.text("FailReason", asked.fault);
    else
        answer.text("BussinessStatus", "")
            .text("MAC", own_mac)
            .text("LOID", "")
            .text("DevType", device_type)
            .text("Version", protocol_version);
    return json::base64_text(answer.take().text());
}

// What a message is answered with; nothing, after log lines, when it is no request.
std::optional<std::string> answer_to(const std::string &body, std::string_view own_mac) {
    log_printf("[INFO] (local) <- %s (%d)\n", body.c_str(), static_cast<int>(body.size()));
    const json::document request = json::parse(body);
    if (!request) {
        log_printf("[ERROR] (local) invalid msg (not json format)\n");
        return std::nullopt;
    }
    const auto method = request["RPCMethod"].text();
    const auto id = request["ID"].number();
    if (!method || !id) {
        log_printf("[ERROR] (local) RPCMethod or ID not found\n");
        log_printf("[ERROR] (local) invalid server msg\n");
        return std::nullopt;
    }
    json::object reply;
    reply.text("Ack", *method).number("ID", *id);
    if (*method == "Post1")
        reply.number("Result", 0).add("return_Parameter", post1(request.root(), own_mac));
    else
        reply.number("Result", -1).text("FailReason", "UNRECOGNIZE_REQUEST");
    return reply.take().take();
}

}  // namespace

// --- clients ---

class server::client {
  public:
    client(server &owner, int fd, in_addr address)
        : owner_(owner),
          address_(address.s_addr),
          heard_(++owner.heard_),
          reader_(format_of_frames, bind<&client::receive>(*this)),
          stream_({.read = bind<&client::read>(*this),
                   .broken = bind<&client::close>(*this),
                   .down = bind<&client::remove>(*this)},
                  unsent_max) {
        stream_.open(fd);
    }

    bool is_open() const { return stream_.is_open(); }
    bool is_of(in_addr address) const { return address_ == address.s_addr; }
    // Grows with every client that connects or sends: the smallest is the one longest idle.
    std::uint64_t heard() const { return heard_; }
    std::size_t unsent() { return stream_.unsent(); }

    // The client goes with its connection: at once, or on the loop's next turn from a request of its own.
    void close() {
        if (!stream_.is_open())
            return;
        log_printf("[INFO] (local) disconnect fd: %d\n", stream_.fd());
        stream_.close();
    }

  private:
    void read(std::size_t available) {
        heard_ = ++owner_.heard_;
        if (!reader_.read(stream_, available))
            close();
    }

    void receive(std::string &body) {
        const auto reply = answer_to(body, owner_.cache_.own_mac());
        if (!reply)
            return;
        log_printf("[INFO] (local) -> %s (%d)\n", reply->c_str(), static_cast<int>(reply->size()));
        stream_.write(frame_of(*reply));
        owner_.bound_output();
    }

    void remove() {
        owner_.memory_.soon();
        owner_.clients_.remove_if([this](const client &other) { return &other == this; });
    }

    server &owner_;
    in_addr_t address_;
    std::uint64_t heard_;
    frame_reader reader_;
    stream stream_;
};

// --- the listening socket ---

server::server(const platform::cache &cache, std::string port)
    : cache_(cache),
      port_(port.empty() ? default_port : std::move(port)),
      watch_(bind<&server::accept_client>(*this)),
      accept_pause_(bind<&server::resume>(*this)) {}

server::~server() {
    if (listener_) {
        log_printf("[INFO] (local) server stop %d\n", listener_.get());
        accept_pause_.cancel();
        watch_.stop();
        listener_.reset();
    }
    for (auto at = clients_.begin(); at != clients_.end();)
        (at++)->close();
}

bool server::start() {
    log_printf("[INFO] (local) server start \"%s:%s\"\n", any_address, port_.c_str());
    listener_.reset(usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, any_address, port_.c_str()));
    if (!listener_) {
        log_printf("[ERROR] (local) create socket failed: %s\n", std::strerror(errno));
        return false;
    }
    watch_.start(listener_.get());
    return true;
}

void server::resume() {
    watch_.start(listener_.get());
}

// How many clients there may be.
std::size_t server::room() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > clients_max + own_descriptors)
        return clients_max;
    return limit.rlim_cur > own_descriptors ? static_cast<std::size_t>(limit.rlim_cur - own_descriptors) : 0;
}

// For a client of that address: where it has all that it may have, of its own clients, else of all.
void server::make_room(in_addr address) {
    std::size_t all = 0, own = 0;
    client *longest_idle = nullptr, *own_longest_idle = nullptr;
    const auto older = [](client *a, client &b) { return a && a->heard() < b.heard() ? a : &b; };
    for (client &c : clients_) {
        if (!c.is_open())
            continue;
        all++;
        longest_idle = older(longest_idle, c);
        if (!c.is_of(address))
            continue;
        own++;
        own_longest_idle = older(own_longest_idle, c);
    }
    if (own >= clients_of_address_max)
        own_longest_idle->close();
    else if (all > 0 && all >= room())
        longest_idle->close();
}

// Whoever makes most wait goes.
void server::bound_output() {
    for (;;) {
        std::size_t all = 0;
        for (client &c : clients_)
            all += c.unsent();
        if (all <= unsent_of_all_max)
            return;
        std::max_element(clients_.begin(), clients_.end(), [](client &a, client &b) {
            return a.unsent() < b.unsent();
        })->close();
    }
}

void server::accept_client() {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int fd =
        room() > 0 ? accept4(listener_.get(), reinterpret_cast<sockaddr *>(&peer), &size, SOCK_CLOEXEC) : -1;
    if (fd < 0) {
        log_printf("[ERROR] (local) accept failed\n");
        watch_.stop();  // who could not be accepted keeps the socket readable
        return accept_pause_.arm(accept_pause_ms);
    }
    char address[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    log_printf("[INFO] (local) accept client \"%s\" %d\n", address, fd);
    // A client that vanished without a word would keep its descriptor for ever.
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    make_room(peer.sin_addr);
    clients_.emplace_front(*this, fd, peer.sin_addr);
}

}  // namespace arvok::local
