#include "connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace arvok::lab {
namespace {

// A peer that does not read is given up before what waits for it becomes a burden.
constexpr std::size_t queue_limit = 16u << 20;

}  // namespace

Connection::Connection(int descriptor, std::function<void(std::string_view)> received,
                       std::function<void(const std::string &)> ended)
    : received_(std::move(received)),
      ended_(std::move(ended)),
      watch_([this](unsigned events) { ready(events); }),
      pause_([this] { write(); }) {
    // Pieces are to arrive as they were written.
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    watch_.open(descriptor, ULOOP_READ);
}

void Connection::send(std::string bytes, const Pace &pace) {
    if (!open())
        return;
    queued_ += bytes.size();
    if (queued_ > queue_limit)
        return fail("the peer does not read");
    if (pace.split == 0 || pace.split >= bytes.size()) {
        queue_.push_back({std::move(bytes)});
    } else {
        for (std::size_t at = 0; at < bytes.size(); at += pace.split)
            queue_.push_back({bytes.substr(at, pace.split), 0, pace.interval});
    }
    if (!pause_.armed())
        write();
}

void Connection::send_later(std::string bytes, int delay) {
    std::erase_if(later_, [](const auto &timer) { return !timer->armed(); });
    later_.push_back(std::make_unique<Timer>([this, late = std::move(bytes)] { send(late); }));
    later_.back()->set(delay);
}

void Connection::close() {
    for (const auto &timer : later_)
        timer->cancel();
    pause_.cancel();
    segments_ = segments();
    watch_.close();
    queue_.clear();
    queued_ = 0;
}

void Connection::ready(unsigned events) {
    if (events & ULOOP_WRITE)
        write();
    // The loop stops watching a broken descriptor, so that what still waits there has to be taken now.
    do {
        if (open())
            read();
    } while (open() && watch_.broken());
}

void Connection::read() {
    char bytes[8192];
    const ssize_t count = recv(watch_.descriptor(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0)
        received_({bytes, static_cast<std::size_t>(count)});
    else if (count == 0)
        fail("closed by the peer");
    else if (errno != EAGAIN || watch_.broken())
        fail(std::strerror(errno));
}

void Connection::write() {
    while (!queue_.empty()) {
        Piece &piece = queue_.front();
        const ssize_t count = ::send(watch_.descriptor(), piece.bytes.data() + piece.written,
                                     piece.bytes.size() - piece.written, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EAGAIN || errno == EINTR)
                return watch_.want(ULOOP_READ | ULOOP_WRITE);
            return fail(std::strerror(errno));
        }
        piece.written += static_cast<std::size_t>(count);
        queued_ -= static_cast<std::size_t>(count);
        if (piece.written < piece.bytes.size())
            continue;
        const int interval = piece.pause;
        queue_.pop_front();
        if (interval > 0 && !queue_.empty()) {
            pause_.set(interval);
            break;
        }
    }
    watch_.want(ULOOP_READ);
}

void Connection::fail(const std::string &why) {
    close();
    ended_(why);
}

}  // namespace arvok::lab
