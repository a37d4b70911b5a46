#include "base/stream.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <utility>

extern "C" {
#include <libubox/list.h>
}

namespace arvok {
namespace {

constexpr std::size_t turn_max = body_max / 2;  // bytes taken before everybody else has a turn
constexpr int reading_ms = 10;  // until it is looked again whether the loop has read what lies there
constexpr int look_ms = 500;    // between looks for the other side of what is on hold

stream &stream_of(ustream *s) {
    return owner_of<stream>(container_of(s, ustream_fd, stream));
}

// What the system holds of a connection: FIONREAD, to be read; SIOCOUTQ, not taken by the other side.
std::uint64_t held_by_system(int fd, unsigned long which) {
    int bytes = 0;
    return ioctl(fd, which, &bytes) == 0 ? static_cast<std::uint64_t>(bytes) : 0;
}

}  // namespace

stream::stream(const handlers &who, std::size_t unsent_max)
    : handlers_(who), unsent_max_(unsent_max), library_(*this), next_turn_(bind<&stream::next_turn>(*this)) {}

stream::~stream() {
    if (is_open() || closing_)
        take_down();
}

void stream::open(int fd) {
    if (is_open() || closing_)
        take_down();
    static_cast<ustream_fd &>(library_) = {};
    ustream &s = library_.stream;
    s.notify_read = [](ustream *at, int) { stream_of(at).readable(); };
    s.notify_write = [](ustream *at, int) { stream_of(at).drained(); };
    s.notify_state = [](ustream *at) { stream_of(at).end(); };
    s.r.buffer_len = static_cast<int>(body_max);
    s.string_data = false;
    fd_ = fd;
    taken_ = 0;
    read_ = written_ = 0;
    end_.reset();
    ustream_fd_init(&library_, fd);
}

void stream::close() {
    if (!is_open())
        return;
    fd_ = -1;
    closing_ = true;
    if (in_read_) {
        ustream_set_read_blocked(&library_.stream, true);
        next_turn_.arm(0);
        return;
    }
    take_down();
    if (handlers_.down)
        handlers_.down();
}

void stream::take_down() {
    next_turn_.cancel();
    ustream_free(&library_.stream);
    ::close(library_.fd.fd);
    library_.fd.fd = -1;
    fd_ = -1;
    closing_ = false;
    held_ = on_hold_ = false;
}

void stream::readable() {
    if (closing_)
        return;
    announce();
    // The library reads on for as long as there is something, which a peer can make long, also bit by bit.
    if (taken_ > turn_max) {
        taken_ = 0;
        pause();
    }
}

// What there is in all: of what the library tells, releases differ in whether it is that or only the newest
// part.
void stream::announce() {
    in_read_ = true;
    handlers_.read(static_cast<std::size_t>(buffered()));
    in_read_ = false;
}

// Reads no more until the next turn; a stream that is held or closed needs more than that.
void stream::pause() {
    ustream_set_read_blocked(&library_.stream, true);
    if (!held_)
        next_turn_.arm(0);
}

std::size_t stream::unsent() {
    return is_open() ? static_cast<std::size_t>(ustream_pending_data(&library_.stream, true)) : 0;
}

std::uint64_t stream::buffered() {
    return static_cast<std::uint64_t>(ustream_pending_data(&library_.stream, false));
}

std::uint64_t stream::arrived() {
    return is_open() ? read_ + buffered() + held_by_system(fd_, FIONREAD) : read_;
}

bool stream::has_served(std::uint64_t position) {
    return position <= (is_open() && !is_held() ? read_ + buffered() : read_);
}

std::uint64_t stream::delivered() {
    const std::uint64_t waiting = is_open() ? unsent() + held_by_system(fd_, SIOCOUTQ) : 0;
    return waiting < written_ ? written_ - waiting : 0;
}

void stream::drained() {
    if (held_ && unsent() <= unsent_max_)
        next_turn_.arm(0);
}

void stream::next_turn() {
    if (closing_) {
        take_down();
        if (handlers_.down)
            handlers_.down();
        return;
    }
    if (end_)
        return end();
    if (on_hold_)
        return has_other_side() ? next_turn_.arm(look_ms) : handlers_.broken();
    if (held_ && unsent() > unsent_max_)
        return;  // drained comes back
    ustream_set_read_blocked(&library_.stream, false);
    // What is buffered is not announced again.
    if (std::exchange(held_, false))
        announce();
}

// The library tells of a failed write before what has come in meanwhile is read. A peer that takes nothing
// any more does not hold its requests up; but where what they are answered with would grow, they go. So do
// those behind one whose answer is still to come: that is nobody's any more.
void stream::end() {
    if (closing_)
        return;
    const bool advances = end_ != read_ + buffered();
    end_ = read_ + buffered();
    if (!on_hold_) {
        ustream_set_read_blocked(&library_.stream, false);
        if (std::exchange(held_, false))
            announce();
        if (closing_)
            return;
    }
    if (!on_hold_ && advances && held_by_system(fd_, FIONREAD) > 0 && unsent() <= unsent_max_)
        return next_turn_.arm(reading_ms);
    handlers_.broken();
}

void stream::hold() {
    if (!is_open())
        return;
    on_hold_ = true;
    ustream_set_read_blocked(&library_.stream, true);
    next_turn_.arm(look_ms);
}

void stream::release() {
    if (!std::exchange(on_hold_, false))
        return;
    held_ = true;
    next_turn_.arm(0);
}

// What is not read does not show its end.
bool stream::has_other_side() {
    pollfd end{fd_, POLLRDHUP, 0};
    return poll(&end, 1, 0) <= 0;
}

bool stream::has_input() {
    return is_open() && arrived() > read_;
}

std::size_t stream::read(char *to, std::size_t size) {
    if (!is_open())
        return 0;
    const auto got = static_cast<std::size_t>(ustream_read(&library_.stream, to, static_cast<int>(size)));
    taken_ += got;
    read_ += got;
    return got;
}

void stream::write(std::string_view bytes) {
    if (!is_open())
        return;
    ustream_write(&library_.stream, bytes.data(), static_cast<int>(bytes.size()), false);
    written_ += bytes.size();
    if (!held_ && !end_ && unsent() > unsent_max_) {
        held_ = true;
        pause();
    }
}

}  // namespace arvok
