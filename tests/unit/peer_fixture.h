#pragma once
/// One of the agent's connections against a raw socket in the same process, in a network namespace of its
/// own. The loop turns only when the test says so, so that every split of the bytes and every timer can be
/// looked at.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>
#include "common/text.h"
#include "context.h"
#include "own_network.h"
#include "utask/utask.h"

namespace arvok {

inline std::string be32(std::uint32_t n) {
    n = htonl(n);
    return std::string(reinterpret_cast<char *>(&n), 4);
}

/// The other end of a connection.
class RemoteEnd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_TRUE(enter_own_network()) << "no network namespaces here"; }

    // The last four bytes of a frame's header are the length of what follows it.
    explicit RemoteEnd(std::size_t header_size) : header_size_(header_size) {}

    void SetUp() override {
        g_ctx = {};
        g_ctx.devinfo.reset(static_cast<qzcap_devinfo *>(qzcap_calloc(1, sizeof(qzcap_devinfo))));
        g_ctx.devinfo->mac = qzcap_strdup("021122334455");
        ::testing::internal::CaptureStderr();
        uloop_init();
        utask_init();
    }
    void TearDown() override {
        utask_done();
        if (peer_ >= 0)
            close(peer_);
        ::testing::internal::GetCapturedStderr();
        g_ctx = {};
    }

    // Turns the loop until `done`, or fails after two seconds.
    void pump(const std::function<bool()> &done) {
        for (int turns = 0; turns < 2000; turns++) {
            if (done())
                return;
            uloop_run_timeout(1);
        }
        FAIL() << "did not happen; log so far:\n" << log_text();
    }
    void turn() {
        for (int i = 0; i < 3; i++)
            uloop_run_timeout(1);
    }
    void send_bytes(const std::string &bytes) {
        ASSERT_EQ(::send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The agent's next frame: its header and its body.
    std::pair<std::string, std::string> receive_frame() {
        const auto complete = [this] {
            return inbox_.size() >= header_size_ && inbox_.size() >= header_size_ + body_size();
        };
        pump([&] {
            char buf[4096];
            const ssize_t got = recv(peer_, buf, sizeof buf, 0);
            if (got > 0)
                inbox_.append(buf, static_cast<std::size_t>(got));
            return complete();
        });
        if (!complete())
            return {};
        const std::size_t size = body_size();
        std::pair frame{inbox_.substr(0, header_size_), inbox_.substr(header_size_, size)};
        inbox_.erase(0, header_size_ + size);
        return frame;
    }
    std::size_t body_size() const {
        std::uint32_t n;
        std::memcpy(&n, inbox_.data() + header_size_ - sizeof n, sizeof n);
        return ntohl(n);
    }
    void expect_closed() {
        char byte;
        pump([&] { return recv(peer_, &byte, 1, 0) == 0; });
    }

    static constexpr std::size_t time_size = 13;  // "hh:mm:ss.mmm "

    // Everything logged since the last call, without the times.
    std::string log() {
        std::string text = log_text();
        log_.clear();
        return text;
    }
    const std::string &log_text() {
        std::istringstream text(::testing::internal::GetCapturedStderr());
        for (std::string line; std::getline(text, line);) {
            const bool timed = line.size() > time_size && line[2] == ':' && line[8] == '.';
            log_ += line.substr(timed ? time_size : 0) + (text.eof() ? "" : "\n");
        }
        ::testing::internal::CaptureStderr();
        return log_;
    }
    void expect_log(const std::string &line) {
        pump([&] { return log_text().find(line) != std::string::npos; });
    }
    static void expect_armed(uloop_timeout &timer, int ms) {
        EXPECT_TRUE(timer.pending);
        const int left = uloop_timeout_remaining(&timer);
        EXPECT_LE(left, ms);
        EXPECT_GT(left, ms - 1500);
    }
    static void fire(uloop_timeout &timer) {
        uloop_timeout_cancel(&timer);
        timer.cb(&timer);
    }

    const std::size_t header_size_;
    int peer_ = -1;
    std::string inbox_, log_;
};

inline sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

/// A peer that the agent connects to.
class Peer : public RemoteEnd {
  protected:
    Peer(std::uint16_t port, std::size_t header_size) : RemoteEnd(header_size), port_(port) {}

    void SetUp() override {
        start_listening();
        RemoteEnd::SetUp();
    }
    void TearDown() override {
        RemoteEnd::TearDown();
        close(listener_);
    }
    void start_listening() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in addr = loopback(port_);
        ASSERT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(listen(listener_, 4), 0);
    }

    // Takes the connection that the agent has opened.
    void accept_one() {
        if (peer_ >= 0)
            close(peer_);
        inbox_.clear();
        pollfd ready{listener_, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 2000), 1) << "nobody connects; log so far:\n" << log_text();
        peer_ = accept(listener_, nullptr, nullptr);
        fcntl(peer_, F_SETFL, O_NONBLOCK);
    }

    const std::uint16_t port_;
    int listener_ = -1;
};

}  // namespace arvok
