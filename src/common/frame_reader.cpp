#include "common/frame_reader.h"

#include <vector>

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

// Takes the header off the stream. The body length, or 0 after a log line.
int read_header(const frame_protocol &protocol, tcp_stream &stream) {
    char header[header_max];
    const int got = stream_read(stream, header, protocol.header_size);
    if (got < protocol.header_size) {
        qzcap_printf(protocol.short_header, got);
        return 0;
    }
    return protocol.body_length(header);
}

}  // namespace

bool read_frames(const frame_protocol &protocol, tcp_stream &stream, int avail, std::int32_t &pending_len) {
    int length = pending_len;
    while (avail > protocol.header_size) {
        if (length == 0) {
            length = read_header(protocol, stream);
            if (length == 0)
                return false;
            avail -= protocol.header_size;
            if (!protocol.forgets_length)
                pending_len = length;
            continue;
        }
        if (avail < length) {
            qzcap_printf(protocol.waiting, avail, length);
            pending_len = length;
            break;
        }
        std::vector<char> body(static_cast<std::size_t>(length) + 1);
        const int got = stream_read(stream, body.data(), length);
        if (got < length) {
            qzcap_printf(protocol.short_body, got, length);
            return false;
        }
        avail -= length;
        pending_len = length = 0;
        protocol.receive(stream, body.data(), got);
        if (stream.fd < 0 || stream.held)
            break;
    }
    return true;
}

}  // namespace arvok
