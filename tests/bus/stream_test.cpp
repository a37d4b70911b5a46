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

    explicit Stream(int read_buffer = 0) : ustream_fd{} {
        int ends[2];

        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer = ends[1];
        stream.r.buffer_len = read_buffer;
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
        for (int i = 0; i < 10000 && !done(); i++)
            run_for(1);
        EXPECT_TRUE(done());
    }
    static void settle() { run_for(10); }
    // With another limit, older releases go on until an event.
    static void run_for(int ms) {
        uloop_timeout end{};
        end.cb = [](uloop_timeout *) { uloop_end(); };
        uloop_timeout_set(&end, ms);
        uloop_run_timeout(-1);
        uloop_timeout_cancel(&end);
    }
};

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

    stream.on_read = [&](Stream &s, int) {
        // Older releases announce what is new, later ones what is buffered.
        seen.push_back(ustream_pending_data(&s.stream, false));
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
