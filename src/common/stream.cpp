#include "common/stream.h"

#include <unistd.h>

#include <type_traits>
#include <utility>

namespace arvok {
namespace {

constexpr int turn_max = max_body / 2;  // bytes taken before everybody else has a turn

// The library's stream is the first member of the first member, so one address serves for both.
static_assert(std::is_standard_layout_v<tcp_stream>);

tcp_stream &owner_of(ustream *s) {
    return *reinterpret_cast<tcp_stream *>(s);
}

void take_down(tcp_stream &stream) {
    uloop_timeout_cancel(&stream.next_turn);
    ustream_free(&stream.sf.stream);
    close(stream.sf.fd.fd);
    stream.sf.fd.fd = -1;
    stream.closing = false;
    stream.held = false;
}

void take_down_and_tell(tcp_stream &stream) {
    take_down(stream);
    if (stream.on_down)
        stream.on_down(stream);
}

void announce(tcp_stream &stream, int avail) {
    stream.in_read = true;
    stream.on_read(stream, avail);
    stream.in_read = false;
}

// Reads no more until the next turn; a stream that is held or closed needs more than that.
void pause(tcp_stream &stream) {
    ustream_set_read_blocked(&stream.sf.stream, true);
    if (!stream.held)
        uloop_timeout_set(&stream.next_turn, 0);
}

void read_cb(ustream *s, int avail) {
    tcp_stream &stream = owner_of(s);
    if (stream.closing)
        return;
    announce(stream, avail);
    // The library reads on for as long as there is something, which a peer can make long, also bit by bit.
    if (stream.taken > turn_max) {
        stream.taken = 0;
        pause(stream);
    }
}

void write_cb(ustream *s, int) {
    tcp_stream &stream = owner_of(s);
    if (stream.held && ustream_pending_data(s, true) <= stream.unsent_max)
        uloop_timeout_set(&stream.next_turn, 0);
}

void state_cb(ustream *s) {
    tcp_stream &stream = owner_of(s);
    if (!stream.closing)
        stream.on_broken(stream);
}

void next_turn_cb(uloop_timeout *t) {
    auto *at = reinterpret_cast<unsigned char *>(t) - offsetof(tcp_stream, next_turn);
    tcp_stream &stream = *reinterpret_cast<tcp_stream *>(at);
    if (stream.closing)
        return take_down_and_tell(stream);
    if (stream.held && ustream_pending_data(&stream.sf.stream, true) > stream.unsent_max)
        return;  // write_cb comes back
    ustream_set_read_blocked(&stream.sf.stream, false);
    // What is buffered is not announced again.
    if (std::exchange(stream.held, false))
        announce(stream, ustream_pending_data(&stream.sf.stream, false));
}

}  // namespace

void stream_init(tcp_stream &stream, void (*on_read)(tcp_stream &, int), void (*on_broken)(tcp_stream &)) {
    stream = {};
    stream.fd = stream.sf.fd.fd = -1;
    stream.next_turn.cb = next_turn_cb;
    stream.on_read = on_read;
    stream.on_broken = on_broken;
}

void stream_open(tcp_stream &stream, int fd) {
    stream_release(stream);
    stream.sf = {};
    stream.sf.stream.notify_read = read_cb;
    stream.sf.stream.notify_write = write_cb;
    stream.sf.stream.notify_state = state_cb;
    stream.sf.stream.r.buffer_len = max_body;
    stream.sf.stream.string_data = false;
    stream.fd = fd;
    ustream_fd_init(&stream.sf, fd);
}

void stream_close(tcp_stream &stream) {
    if (stream.fd < 0)
        return;
    stream.fd = -1;
    stream.closing = true;
    if (stream.in_read) {
        ustream_set_read_blocked(&stream.sf.stream, true);
        uloop_timeout_set(&stream.next_turn, 0);
    } else {
        take_down_and_tell(stream);
    }
}

void stream_release(tcp_stream &stream) {
    if (stream.fd >= 0 || stream.closing)
        take_down(stream);
    stream.fd = -1;
}

int stream_read(tcp_stream &stream, void *buf, int len) {
    if (stream.fd < 0)
        return 0;
    const int got = ustream_read(&stream.sf.stream, static_cast<char *>(buf), len);
    stream.taken += got;
    return got;
}

void stream_write(tcp_stream &stream, const void *buf, int len) {
    if (stream.fd < 0)
        return;
    ustream *const s = &stream.sf.stream;
    ustream_write(s, static_cast<const char *>(buf), len, false);
    if (stream.unsent_max > 0 && !stream.held && ustream_pending_data(s, true) > stream.unsent_max) {
        stream.held = true;
        pause(stream);
    }
}

}  // namespace arvok
