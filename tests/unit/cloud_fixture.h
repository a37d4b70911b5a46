#pragma once
/// The cloud client against a raw socket in the same process, in a network namespace of its own in which all
/// of 100.0.0.0/8 is this machine. The loop turns only when the test says so; the timers' clock, the name
/// service and the platform's records are the test's.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>

#include "../loop.h"
#include "base/base64.h"
#include "base/crypto.h"
#include "base/text.h"
#include "cloud/cloud.h"

namespace arvok::cloud {

/// What a name resolves to; a name that is not there fails. The look-up takes `seconds`.
struct name_answer {
    std::vector<std::string> addresses;
    long seconds = 0;
};

/// What of the machine and of the platform library is in the test's hands.
struct surroundings {
    std::map<std::string, name_answer> names;
    std::vector<std::string> asked;   ///< host names
    std::string abi, token, id;       ///< the stored server and identity; empty: none
    std::vector<std::string> stored;  ///< each "bss|abi|further abi,...|token|id"
    std::string vendor, serial, user;
};
extern surroundings machine;
extern std::mutex look_up;  ///< held: look-ups wait

/// Moves this process there. False where the kernel does not let it.
bool enter_surroundings();
/// Puts the timers' clock forward.
void advance(std::int64_t ms);
std::string log_text();
/// Everything logged since the last call.
std::string log();

/// A message of the platform that acknowledges one of the device.
inline std::string ack(const std::string &name, const std::string &members) {
    return R"({"Ack":")" + name + R"(",)" + members + "}";
}

class Cloud : public ::testing::Test {
  protected:
    static constexpr std::size_t header_size = 12;
    static constexpr char server_key[] = "the server's key";
    static constexpr char get_challenge[] = R"({"RPCMethod":"GetChallengeCode","MAC":"021122334455"})";
    static constexpr char heartbeat[] =
        R"({"RPCMethod":"Heartbeat","MAC":"021122334455","IPAddr":"100.64.0.1"})";

    static void SetUpTestSuite() { ASSERT_TRUE(enter_surroundings()) << "no network namespaces here"; }
    void SetUp() override {
        log();
        uloop_init();
        start_listening();
        machine = {};
    }
    void TearDown() override {
        end_client();
        close(peer_);
        close(listener_);
        uloop_done();
    }

    // --- the device: a new client in each stage, whose last message has been received ---

    client &make_client() {
        end_client();
        queue_.emplace();
        cache_.emplace();
        cache_->refresh_device();
        return client_.emplace(
            *queue_, *cache_, [] { return std::time_t{0}; }, options{}, agent_services{});
    }
    void end_client() {
        client_.reset();
        queue_.reset();
        cache_.reset();
    }
    void bootstrap() {
        machine.names["bss.example"] = {{"100.64.0.9", "100.64.0.8"}};
        make_client().start();
        accept_one();
        EXPECT_TRUE(receive().starts_with(R"({"RPCMethod":"Boot")"));
    }
    void fetch_challenge() {
        machine.abi = "100.64.0.1:8088";
        make_client().start();
        accept_one();
        EXPECT_EQ(receive(), get_challenge);
    }
    void activate() {
        fetch_challenge();
        EXPECT_TRUE(answer_challenge().starts_with(R"({"RPCMethod":"Activate")"));
    }
    void prove() {
        machine.token = "token";
        machine.id = "id";
        fetch_challenge();
        EXPECT_TRUE(answer_challenge().starts_with(R"({"RPCMethod":"Connect")"));
    }
    void connect_fully() {
        prove();
        become_connected();
        log();
    }
    std::string answer_challenge() {
        const std::string code(32, 'c');
        send(ack("GetChallengeCode", R"("Result":0,"ChallengeCode":")" + code + R"(")"));
        return receive();
    }
    void become_connected() {
        send(ack("Connect", R"("Result":0,"SKey":")" + std::string(server_key) + R"(")"));
        key_ = server_key;
        EXPECT_EQ(receive(), heartbeat);
        send(ack("Heartbeat", R"("Result":0)"));
        pump([&] { return client_->acknowledgement_remaining() < 0; });
    }

    // --- the platform ---

    // What is not read soon holds the device up.
    void start_listening() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const int on = 1, room = 4096;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        const sockaddr_in any{AF_INET, htons(8088), {}, {}};
        ASSERT_EQ(::bind(listener_, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        ASSERT_EQ(listen(listener_, 4), 0);
    }
    // Takes the connection that the device opens. Returns the address that it has asked for.
    std::string accept_one() {
        close(peer_);
        inbox_.clear();
        key_.clear();
        pump([&] { return (peer_ = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; });
        sockaddr_in name{};
        socklen_t size = sizeof name;
        getsockname(peer_, reinterpret_cast<sockaddr *>(&name), &size);
        return inet_ntoa(name.sin_addr);
    }
    void send_bytes(const std::string &bytes) {
        ASSERT_EQ(::send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void send(const std::string &json) { send_bytes(message(json)); }
    static std::string frame(const std::string &body) {
        const std::uint32_t n = htonl(static_cast<std::uint32_t>(body.size()));
        return "QZSGWMP2" + std::string(reinterpret_cast<const char *>(&n), sizeof n) + body;
    }
    // A message's frame, encrypted as the device expects it.
    std::string message(const std::string &json) const {
        std::string data = json;
        if (!key_.empty())
            aes(aes_mode::ecb, aes_key_of(key_)).encrypt(data);
        return frame(base64_encode(data) + "\r\n");
    }
    // The device's next message. One to the platform's own key is read in the log; its client key is that of
    // what is sent next.
    std::string receive() {
        std::size_t size = 0;
        pump([&] {
            char bytes[4096];
            const ssize_t got = recv(peer_, bytes, sizeof bytes, 0);
            inbox_.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
            if (std::uint32_t n; inbox_.size() >= header_size) {
                std::memcpy(&n, inbox_.data() + 8, sizeof n);
                size = header_size + ntohl(n);
            }
            return size > 0 && inbox_.size() >= size;
        });
        const std::string whole = inbox_.substr(0, size);
        inbox_.erase(0, size);
        EXPECT_TRUE(whole.starts_with("QZSGWMP2") && whole.ends_with("\r\n"));
        if (!whole.ends_with("\r\n"))
            return {};
        std::string data = *base64_decode(whole.substr(header_size, size - header_size - 2));
        if (data.starts_with("{\"")) {  // what is encrypted may well begin with a brace
            key_.clear();
            return data;
        }
        if (key_ == server_key)
            return aes(aes_mode::ecb, aes_key_of(key_)).decrypt(data) ? data : "";
        const std::string text = log_text();
        const std::size_t from = text.rfind("(cloud) -> ") + 11;
        const std::string sent = text.substr(from, text.find(" (", from) - from);
        if (const std::size_t key = sent.find(R"("CKey":")"); key != std::string::npos)
            key_ = sent.substr(key + 8, 16);
        return sent;
    }
    // A request, and the reply to it.
    std::string ask(const std::string &method, const std::string &members = "") {
        send(R"({"RPCMethod":")" + method + R"(","ID":"1")" + members + "}");
        return receive();
    }

    // --- the loop and its timers ---

    // Turns the loop until `done`, or fails after ten seconds.
    void pump(const std::function<bool()> &done) {
        for (int turns = 0; turns < 10000; turns++) {
            if (done())
                return;
            run_loop_for(1);
        }
        FAIL() << "did not happen; log so far:\n" << log_text();
    }
    static void turn() {
        for (int i = 0; i < 3; i++)
            run_loop_for(1);
    }
    void expect_log(const std::string &line) {
        pump([&] { return contains(log_text(), line); });
    }
    static void expect_armed(int left, int ms) {
        EXPECT_LE(left, ms);
        EXPECT_GT(left, ms - 1500);
    }
    void expect_reconnection(int ms) {
        char byte;
        pump([&] { return recv(peer_, &byte, 1, 0) == 0; });
        expect_armed(client_->reconnect_remaining(), ms);
        EXPECT_EQ(client_->acknowledgement_remaining(), -1);
        EXPECT_EQ(client_->heartbeat_remaining(), -1);
    }
    // Lets the time until the next connection pass.
    void wait_for_reconnection() {
        pollfd knock{listener_, POLLIN, 0};  // the first delay may be none
        pump([&] { return client_->reconnect_remaining() >= 0 || poll(&knock, 1, 0) > 0; });
        if (client_->reconnect_remaining() >= 0)
            advance(client_->reconnect_remaining() + 1);
    }

    std::optional<task_queue> queue_;
    std::optional<platform::cache> cache_;
    std::optional<client> client_;
    int listener_ = -1, peer_ = -1;
    std::string inbox_, key_;
};

}  // namespace arvok::cloud
