#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
#include <libubox/ustream.h>
}

namespace arvok {
namespace {

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
}

// A stream on one end of a pair; the test holds the other end.
struct Stream : ustream_fd {
    std::function<void(Stream &, int)> on_read = [](Stream &, int) {};
    std::function<void(Stream &)> on_state = [](Stream &) {};
    int written = 0;
    int peer;

    explicit Stream(int read_buffer = 0, bool text = false) : ustream_fd{} {
        int ends[2];

        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer = ends[1];
        stream.r.buffer_len = read_buffer;
        stream.string_data = text;
        stream.notify_read = [](ustream *s, int bytes) { of(s).on_read(of(s), bytes); };
        stream.notify_write = [](ustream *s, int bytes) { of(s).written += bytes; };
        stream.notify_state = [](ustream *s) {
            const auto act = of(s).on_state;
            act(of(s));
        };
        ustream_fd_init(this, ends[0]);
    }
    ~Stream() {
        const int descriptor = fd.fd;
        ustream_free(&stream);
        EXPECT_EQ(close(descriptor), 0) << "the stream has closed the descriptor";
        hang_up();
    }
    Stream(const Stream &) = delete;

    static Stream &of(ustream *s) { return *static_cast<Stream *>(reinterpret_cast<ustream_fd *>(s)); }
    void send(const std::string &bytes) const {
        EXPECT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    void hang_up() {
        if (peer >= 0)
            close(peer);
        peer = -1;
    }
    std::string take(int bytes) {
        std::string taken(static_cast<size_t>(bytes), '\0');
        taken.resize(static_cast<size_t>(ustream_read(&stream, taken.data(), bytes)));
        return taken;
    }
};

class Streams : public testing::Test {
  protected:
    Streams() { EXPECT_EQ(uloop_init(), 0); }
    ~Streams() override { uloop_done(); }

    static void pump(const std::function<bool()> &done) {
        for (int i = 0; i < 1000 && !done(); i++)
            uloop_run_timeout(10);
        EXPECT_TRUE(done());
    }
    static void settle() {
        for (int i = 0; i < 5; i++)
            uloop_run_timeout(0);
    }
};

TEST_F(Streams, FramesArriveWholeUnderEverySplit) {
    // A consumer of frames: an 8-byte header with the length, then a body of up to the whole read buffer.
    const std::vector<size_t> sizes = {16384, 0, 1, 16384, 5, 16383};
    std::string wire;
    for (size_t size : sizes) {
        char header[8] = {'F', 'R', 'A', 'M'};
        const uint32_t length = static_cast<uint32_t>(size);
        memcpy(header + 4, &length, sizeof(length));
        wire.append(header, sizeof(header)).append(pattern(size));
    }
    for (const size_t chunk :
         std::initializer_list<size_t>{1, 2, 7, 8, 9, 1000, 16383, 16384, 16385, 16392, 20000, wire.size()}) {
        Stream stream(16384);
        std::vector<size_t> bodies;
        long body = -1;

        stream.on_read = [&](Stream &s, int bytes) {
            EXPECT_EQ(bytes, ustream_pending_data(&s.stream, false));
            for (;;) {
                int length;
                char *data = ustream_get_read_buf(&s.stream, &length);
                if (body < 0 && length >= 8) {
                    uint32_t size;
                    EXPECT_EQ(std::string(data, 4), "FRAM");
                    memcpy(&size, data + 4, sizeof(size));
                    body = size;
                    ustream_consume(&s.stream, 8);
                } else if (body >= 0 && length >= body) {
                    EXPECT_EQ(std::string(data ? data : "", static_cast<size_t>(body)),
                              pattern(static_cast<size_t>(body)));
                    bodies.push_back(static_cast<size_t>(body));
                    ustream_consume(&s.stream, static_cast<int>(body));
                    body = -1;
                } else {
                    return;
                }
            }
        };
        for (size_t at = 0; at < wire.size(); at += chunk) {
            stream.send(wire.substr(at, chunk));
            uloop_run_timeout(0);
        }
        pump([&] { return bodies.size() == sizes.size(); });
        EXPECT_EQ(bodies, sizes) << "in chunks of " << chunk;
    }
}

TEST_F(Streams, AFullBufferPausesReadingUntilSomethingIsConsumed) {
    Stream stream(100);
    const std::string sent = pattern(1000);
    std::string got;

    stream.send(sent);
    settle();
    EXPECT_EQ(ustream_pending_data(&stream.stream, false), 100);
    stream.hang_up();
    settle();
    EXPECT_FALSE(stream.stream.eof) << "there is unread data before the end";
    while (got.size() < sent.size()) {
        const std::string piece = stream.take(30);
        ASSERT_FALSE(piece.empty());
        got += piece;
        settle();
    }
    EXPECT_EQ(got, sent);
    EXPECT_TRUE(stream.stream.eof);
}

TEST_F(Streams, TheUserPausesAndResumesReading) {
    Stream stream;
    std::vector<int> seen;

    stream.on_read = [&](Stream &s, int bytes) {
        seen.push_back(bytes);
        ustream_set_read_blocked(&s.stream, true);
    };
    stream.send("one");
    settle();
    stream.send("two");
    settle();
    EXPECT_THAT(seen, testing::ElementsAre(3));
    ustream_set_read_blocked(&stream.stream, false);
    settle();
    EXPECT_THAT(seen, testing::ElementsAre(3, 6));
}

TEST_F(Streams, TextIsTerminatedUpToTheLastByteOfTheBuffer) {
    Stream stream(4, true);
    std::string seen;

    stream.on_read = [&](Stream &s, int bytes) {
        int length;
        const char *text = ustream_get_read_buf(&s.stream, &length);
        EXPECT_EQ(strlen(text), static_cast<size_t>(bytes));
        seen = text;
    };
    stream.send("abcd");
    settle();
    EXPECT_EQ(seen, "abcd");
    ustream_consume(&stream.stream, 2);
    stream.send("ef");
    settle();
    EXPECT_EQ(seen, "cdef");
    ustream_consume(&stream.stream, 4);
    stream.send("x");
    settle();
    EXPECT_EQ(seen, "x");
}

TEST_F(Streams, OutputIsBufferedForASlowReaderInOrder) {
    Stream stream;
    const std::string sent = pattern(3000000);
    std::string got;
    size_t at = 0;

    // In pieces of many sizes, so that whole, partial and buffered writes mix.
    for (size_t piece = 1; at < sent.size(); at += piece, piece = piece * 3 + 1) {
        const std::string part = sent.substr(at, piece);
        ASSERT_EQ(ustream_write(&stream.stream, part.data(), int(part.size()), false), int(part.size()));
    }
    const int buffered = ustream_pending_data(&stream.stream, true);
    EXPECT_GT(buffered, 1000000);
    pump([&] {
        char chunk[70000];
        const ssize_t n = recv(stream.peer, chunk, sizeof(chunk), MSG_DONTWAIT);
        got.append(chunk, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        return got.size() == sent.size();
    });
    EXPECT_TRUE(got == sent);
    EXPECT_EQ(stream.written, buffered);
    EXPECT_EQ(ustream_pending_data(&stream.stream, true), 0);
}

TEST_F(Streams, TheStateCallbackComesFromTheLoopAndMayFree) {
    auto stream = std::make_unique<Stream>();
    bool in_call = false;

    stream->on_read = [&](Stream &s, int bytes) {
        in_call = true;
        s.take(bytes);
        in_call = false;
    };
    stream->on_state = [&](Stream &s) {
        EXPECT_FALSE(in_call);
        EXPECT_TRUE(s.stream.eof);
        stream.reset();
    };
    stream->send("last words");
    stream->hang_up();
    pump([&] { return !stream; });
}

TEST_F(Streams, AWriteErrorIsTheEndOfWriting) {
    Stream stream;
    int states = 0;

    stream.on_state = [&](Stream &) { states++; };
    stream.hang_up();
    EXPECT_LE(ustream_write(&stream.stream, "x", 1, false), 0);
    EXPECT_EQ(ustream_write(&stream.stream, "x", 1, false), 0);
    EXPECT_TRUE(stream.stream.write_error);
    pump([&] { return states > 0; });
    EXPECT_EQ(ustream_pending_data(&stream.stream, true), 0);
}

}  // namespace
}  // namespace arvok
