#include "common/stream.h"

#include <unistd.h>

#include <type_traits>

namespace arvok {
namespace {

// The library's stream is the first member of the first member, so one address serves for both.
static_assert(std::is_standard_layout_v<tcp_stream>);

tcp_stream &owner_of(ustream *s) {
    return *reinterpret_cast<tcp_stream *>(s);
}

void take_down(tcp_stream &stream) {
    uloop_timeout_cancel(&stream.undertaker);
    ustream_free(&stream.sf.stream);
    close(stream.sf.fd.fd);
    stream.sf.fd.fd = -1;
    stream.closing = false;
}

void read_cb(ustream *s, int avail) {
    tcp_stream &stream = owner_of(s);
    if (stream.closing)
        return;
    stream.in_read = true;
    stream.on_read(stream, avail);
    stream.in_read = false;
}

void state_cb(ustream *s) {
    tcp_stream &stream = owner_of(s);
    if (!stream.closing)
        stream.on_broken(stream);
}

void undertaker_cb(uloop_timeout *t) {
    auto *at = reinterpret_cast<unsigned char *>(t) - offsetof(tcp_stream, undertaker);
    take_down(*reinterpret_cast<tcp_stream *>(at));
}

}  // namespace

void stream_init(tcp_stream &stream, void (*on_read)(tcp_stream &, int), void (*on_broken)(tcp_stream &)) {
    stream = {};
    stream.fd = stream.sf.fd.fd = -1;
    stream.undertaker.cb = undertaker_cb;
    stream.on_read = on_read;
    stream.on_broken = on_broken;
}

void stream_open(tcp_stream &stream, int fd) {
    stream_close(stream);
    if (stream.closing)
        take_down(stream);
    stream.sf = {};
    stream.sf.stream.notify_read = read_cb;
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
        uloop_timeout_set(&stream.undertaker, 0);
    } else {
        take_down(stream);
    }
}

int stream_read(tcp_stream &stream, void *buf, int len) {
    return stream.fd < 0 ? 0 : ustream_read(&stream.sf.stream, static_cast<char *>(buf), len);
}

void stream_write(tcp_stream &stream, const void *buf, int len) {
    if (stream.fd >= 0)
        ustream_write(&stream.sf.stream, static_cast<const char *>(buf), len, false);
}

}  // namespace arvok
