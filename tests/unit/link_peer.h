#pragma once
/// The gateway link against a raw socket in the same process, in a network namespace of its own. The loop
/// turns only when the test says so; what its timers are armed for, the uptime and the platform's answers are
/// in the test's hand (link_peer.cpp).

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "../loop.h"
#include "captured_log.h"
#include "gateway/gateway.h"
#include "lab/gateway/crypto.h"
#include "own_network.h"

namespace arvok::gateway {

inline struct surroundings {
    std::map<uloop_timeout *, int> armed;  ///< milliseconds; timers of less than a second do not matter
    std::vector<int> ever_armed;
    long uptime = 1000;
    bool device_known = true;
    std::int32_t next_element = 0;  ///< the index of the next beacon element
    std::string elements;           ///< what was done to them, each as "ACTION INDEX "
    std::string looked_up;          ///< bus objects, each with a blank behind
    bool ends_at_lookup = false;
    std::string bus;  ///< what became of the agent's own connection, with blanks behind
    std::vector<ubus_subscriber *> subscribers;  ///< on it
    std::vector<void *> installations;           ///< what their callback is to be given
    qzcap_install_handler_t installed = nullptr;
} around;

inline std::string be32(std::uint32_t n) {
    n = htonl(n);
    return std::string(reinterpret_cast<char *>(&n), sizeof n);
}

inline std::string frame(const std::string &body) {
    return be32(0x3f721fb5) + be32(static_cast<std::uint32_t>(body.size())) + body;
}

/// A message that shows in the log that it was handled, and nothing else.
inline std::string probe(const std::string &name) {
    return R"({"type":")" + name + R"("})";
}

class Link : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_TRUE(enter_own_network()) << "no network namespaces here"; }

    void SetUp() override {
        around = {};
        uloop_init();
        capture_log();
        const int on = 1, small = 4096;  // a gateway that does not read is soon full
        setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{AF_INET, htons(32768), {htonl(INADDR_LOOPBACK)}, {}};
        ASSERT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener_.get(), 4), 0);
        ASSERT_TRUE(cache_.refresh_device());
        build({"127.0.0.1"});
    }

    void build(const options &where) {
        agent_.reset();
        tasks_.reset();
        tasks_.emplace();
        agent_.emplace(
            *tasks_, cache_, objects_, [] { return std::time_t{0}; }, where,
            cloud_listeners{.notify = arvok::bind<&Link::hear>(*this)});
    }

    void accept_one() {
        pollfd ready{listener_.get(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 2000), 1) << "nobody connects; log so far:\n" << logged.text;
        peer_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK));
        inbox_.clear();
        key_.reset();
    }
    /// Takes the key request, too.
    void connect() {
        agent_->start();
        accept_one();
        EXPECT_EQ(receive(), R"({"type":"keyngreq","sequence":0,"mac":"021122334455","version":"V2019.1.0",)"
                             R"("keymodelist":[{"keymode":"dh"}]})");
    }
    void send_bytes(const std::string &bytes) {
        ASSERT_EQ(::send(peer_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// Sends a body, encrypted where a key was agreed.
    void send(const std::string &body) { send_bytes(frame(key_ ? *lab::encrypt(*key_, body) : body)); }
    /// The body of the agent's next frame, decrypted where a key was agreed.
    std::string receive() {
        const auto size = [this] {
            std::uint32_t n;
            std::memcpy(&n, inbox_.data() + 4, sizeof n);
            return ntohl(n);
        };
        const auto complete = [&] { return inbox_.size() >= 8 && inbox_.size() >= 8 + size(); };
        pump([&] {
            char bytes[65536];
            const ssize_t got = recv(peer_.get(), bytes, sizeof bytes, 0);
            inbox_.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
            return complete();
        });
        if (!complete())
            return {};
        EXPECT_TRUE(inbox_.starts_with(be32(0x3f721fb5)));
        const std::string body = inbox_.substr(8, size());
        inbox_.erase(0, 8 + body.size());
        return key_ ? lab::decrypt(*key_, body)->c_str() : body;
    }
    /// Asks for a key, which ends the one before, and takes the access point's offer.
    json::document take_offer() {
        send(R"({"type":"keyngack","keymode":"dh"})");
        key_.reset();
        return json::parse(receive());
    }
    /// Agrees on it as the gateway does and takes the registration.
    void agree(const json::document &offer) {
        const auto number = [&](const char *name) { return offer["data"][name].text().value_or("").data(); };
        std::string error;
        const auto answer = lab::answer_dh(number("dh_p"), number("dh_g"), number("dh_key"), error);
        ASSERT_TRUE(answer) << error;
        send(R"({"type":"dh","data":{"dh_key":")" + answer->public_value + R"("}})");
        key_ = answer->key;
        EXPECT_EQ(json::parse(receive())["type"].text(), "dev_reg");
    }
    void negotiate() { agree(take_offer()); }

    /// Turns the loop until `done`, or fails after ten seconds: a connection whose buffers are full may rest
    /// for some.
    void pump(const std::function<bool()> &done) {
        for (int turns = 0; turns < 10000; turns++) {
            if (done())
                return;
            run_loop_for(1);
        }
        FAIL() << "did not happen; log so far:\n" << logged.text;
    }
    void turn() {
        for (int i = 0; i < 3; i++)
            run_loop_for(1);
    }

    /// Everything logged since the last call.
    std::string log() { return logged.take(); }
    bool has_logged(const std::string &line) { return logged.text.find(line) != std::string::npos; }
    void expect_log(const std::string &line) {
        pump([&] { return has_logged(line); });
    }

    static uloop_timeout *timer_of(int ms) {
        for (const auto &[timer, armed_ms] : around.armed)
            if (timer->pending && armed_ms == ms)
                return timer;
        return nullptr;
    }
    static bool is_armed(int ms) { return timer_of(ms) != nullptr; }
    /// Lets the timer that is armed for so many milliseconds fire.
    void fire(int ms) {
        uloop_timeout *const timer = timer_of(ms);
        ASSERT_TRUE(timer) << "not armed: " << ms;
        uloop_timeout_cancel(timer);
        timer->cb(timer);
    }
    /// The connection ends, and nothing but the next attempt is armed.
    void expect_reconnection(int ms) {
        char byte;
        pump([&] { return is_armed(ms) && recv(peer_.get(), &byte, 1, 0) == 0; });
        EXPECT_EQ(around.armed.size(), 1u) << "something else is armed, too";
        EXPECT_FALSE(agent_->is_linked());
    }

    void hear(std::string notification) { heard_ += notification; }
    json::value through_cloud(const std::string &message) {
        return *agent_->handle_cloud_message(json::parse(message).root());
    }

    descriptor listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)}, peer_;
    std::string inbox_, heard_;
    std::optional<lab::LinkKey> key_;
    platform::cache cache_;
    platform::object_watch objects_;
    std::optional<task_queue> tasks_;
    std::optional<client> agent_;
};

}  // namespace arvok::gateway
