// The local server: its framing under every split of the bytes, its requests, and clients that are a burden.

#include "local/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "../loop.h"
#include "base/base64.h"
#include "base/stream.h"
#include "base/text.h"
#include "captured_log.h"
#include "own_network.h"

static int times_trimmed;

extern "C" int malloc_trim(std::size_t) {
    times_trimmed++;
    return 0;
}

namespace arvok {
namespace {

std::string be32(std::uint32_t n) {
    n = htonl(n);
    return std::string(reinterpret_cast<char *>(&n), 4);
}
std::string frame(const std::string &body) {
    return be32(static_cast<std::uint32_t>(body.size())) + body;
}
// A request that nobody knows: it shows in the log and in a reply.
std::string unknown(int id) {
    return frame(format(R"({"RPCMethod":"Nothing","ID":%d})", id));
}
std::string refusal(int id) {
    return format(R"({"Ack":"Nothing","ID":%d,"Result":-1,"FailReason":"UNRECOGNIZE_REQUEST"})", id);
}
int count_in_log(const std::string &text) {
    int count = 0;
    for (std::size_t at = 0; (at = logged.text.find(text, at)) != std::string::npos; at++)
        count++;
    return count;
}

class Local : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_TRUE(enter_own_network()) << "no network namespaces here"; }
    void SetUp() override {
        uloop_init();
        capture_log();
        server_.emplace(cache_, "");
        ASSERT_TRUE(server_->start());
        logged.text.clear();
    }
    void TearDown() override {
        server_.reset();
        for (const int fd : opened_)
            close(fd);
        uloop_done();
    }

    // Turns the loop, each time for that long, until `done`, or fails after a few seconds.
    static void pump(const std::function<bool()> &done, int turn_ms = 1) {
        for (int turns = 0; turns < 3000; turns++) {
            if (done())
                return;
            run_loop_for(turn_ms);
        }
        FAIL() << "did not happen; log so far:\n" << logged.text.substr(0, 2000);
    }
    static void expect_log(const std::string &text) {
        pump([&] { return contains(logged.text, text); });
    }
    // A client that the server has accepted, which sends and receives from now on. Returns the server's
    // descriptor of it.
    int connect(const char *from = "127.0.0.1") {
        logged.text.clear();
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address{AF_INET, htons(17998), {htonl(INADDR_LOOPBACK)}, {}};
        const sockaddr_in own{AF_INET, 0, {inet_addr(from)}, {}};
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        opened_.insert(fd);
        peer_ = fd;
        expect_log("accept client \"" + std::string(from) + "\" ");
        const int accepted = std::atoi(logged.text.c_str() + logged.text.find("1\" ") + 3);
        logged.text.clear();
        return accepted;
    }
    void send_bytes(const std::string &bytes) {
        ASSERT_EQ(::send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string take(std::size_t size) {
        std::string bytes(size, '\0');
        std::size_t taken = 0;
        pump([&] {
            const ssize_t got = recv(peer_, bytes.data() + taken, size - taken, 0);
            taken += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
            return taken == size;
        });
        return bytes;
    }
    // The body of the server's next frame.
    std::string receive() {
        std::uint32_t size;
        std::memcpy(&size, take(sizeof size).data(), sizeof size);
        return take(ntohl(size));
    }
    void expect_served(int id) {
        send_bytes(unknown(id));
        EXPECT_EQ(receive(), refusal(id));
    }
    void expect_closed() {
        char byte;
        pump([&] { return recv(peer_, &byte, 1, 0) == 0; });
    }
    // Sends requests, numbered on, for as long as the socket takes them.
    void flood() {
        for (ssize_t sent; (sent = ::send(peer_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL)) >= 0;) {
            unsent_.erase(0, static_cast<std::size_t>(sent));
            while (unsent_.size() < 4096)
                unsent_ += unknown(requests_++);
        }
    }

    platform::cache cache_;
    std::optional<local::server> server_;
    std::set<int> opened_;
    int peer_ = -1;
    std::string unsent_;  // of a flood
    int requests_ = 0;    // in it
};

TEST_F(Local, AFrameIsHandledWhereverItIsSplit) {
    connect();
    const std::string whole = unknown(1);
    for (std::size_t cut = 1; cut < whole.size(); cut++) {
        logged.text.clear();
        send_bytes(whole.substr(0, cut));
        for (int i = 0; i < 3; i++)
            run_loop_for(1);
        const std::string wait = format("[INFO] (local) wait for the TCP fragmentation, %d/%d\n",
                                        static_cast<int>(cut) - 4, static_cast<int>(whole.size()) - 4);
        EXPECT_EQ(logged.text, cut > 8 ? wait : "") << cut;
        send_bytes(whole.substr(cut));
        EXPECT_EQ(receive(), refusal(1)) << cut;
    }
}

TEST_F(Local, AFramingFaultEndsThatClientOnly) {
    connect();
    const int other = peer_;
    for (const std::uint32_t length : {0u, 16385u, 0xffffffffu}) {
        connect();
        // What follows in the same segment is abandoned.
        send_bytes(be32(length) + unknown(3));
        expect_log(format("[ERROR] (local) invalid msg header, %d\n[INFO] (local) disconnect fd: ",
                          static_cast<int>(length)));
        expect_closed();
        EXPECT_EQ(count_in_log("->"), 0);
    }
    peer_ = other;
    expect_served(4);
    // The longest body, twice in a row.
    std::string body = unknown(5).substr(4);
    body.insert(1, body_max - body.size(), ' ');
    send_bytes(frame(body) + frame(body));
    EXPECT_EQ(receive(), refusal(5));
    EXPECT_EQ(receive(), refusal(5));
}

TEST_F(Local, AMessageFaultIsLoggedOrAnswered) {
    connect();
    for (const char *body : {R"({"RPCMethod":"Post1","ID":"1"})", R"({"RPCMethod":7,"ID":1})",
                             R"({"ID":1,"rpcmethod":"Post1"})", R"(["RPCMethod","ID"])",
                             "null"}) {  // the last is no longer than a header: it waits for what follows it
        logged.text.clear();
        send_bytes(frame(body));
        expect_served(6);
        const std::string lines =
            format("[INFO] (local) <- %s (%d)\n", body, static_cast<int>(std::strlen(body))) +
            "[ERROR] (local) RPCMethod or ID not found\n[ERROR] (local) invalid server msg\n";
        EXPECT_EQ(logged.text.substr(0, lines.size()), lines);
    }
    send_bytes(frame(std::string("{\"RPC\0\":1}", 10)));
    expect_log("[INFO] (local) <- {\"RPC (10)\n[ERROR] (local) invalid msg (not json format)\n");
    const auto parameter = [](const char *command) { return "\"" + base64_encode(command) + "\""; };
    const struct {
        std::string parameter, answer;
    } cases[] = {
        {parameter(R"({"CmdType":"GET_SN_INFO"})"), R"("FailReason":"invalid seq"})"},
        {parameter(R"({"CmdType":"GET_SN_INFO","SequenceId":1})"), R"("FailReason":"invalid seq"})"},
        {parameter("no json, this"), R"("FailReason":"invalid CmdType"})"},
        {"\"\"", R"("FailReason":"invalid CmdType"})"},
        {"\"?{}?\"", R"("FailReason":"Parameter base64 encode failed"})"},
        {R"({"CmdType":"GET_SN_INFO"})", R"("FailReason":"invalid Parameter"})"},
    };
    for (const auto &c : cases) {
        send_bytes(frame(R"({"RPCMethod":"Post1","ID":4294967296,"Parameter":)" + c.parameter + "}"));
        EXPECT_EQ(receive(), R"({"Ack":"Post1","ID":4294967296,"Result":0,"return_Parameter":")" +
                                 base64_encode(R"({"CmdType":"GET_SN_INFO","Status":1,)" + c.answer) + "\"}");
    }
}

TEST_F(Local, AClientThatDoesNotReadIsNotReadFrom) {
    connect();
    const int other = peer_;
    const int stuck = connect(), deaf = peer_, small = 65536;
    setsockopt(stuck, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    for (int quiet = 0; quiet < 50;) {
        const std::size_t before = logged.text.size();
        flood();
        run_loop_for(1);
        quiet = logged.text.size() == before ? quiet + 1 : 0;
    }
    // Of what was answered, no more than a reply beyond the limit waits outside of the system's buffers.
    std::size_t answered = 0;
    for (int id = 0; id < count_in_log("->"); id++)
        answered += 4 + refusal(id).size();
    int sent = 0, received = 0;
    ioctl(stuck, SIOCOUTQ, &sent);
    ioctl(deaf, FIONREAD, &received);
    const auto waiting = static_cast<int>(answered) - sent - received;
    EXPECT_GT(waiting, 4096);
    EXPECT_LT(waiting, 4096 + 100);
    peer_ = other;
    expect_served(-1);

    // When it reads, it gets everything, in order.
    peer_ = deaf;
    for (int id = 0; id < requests_ && !HasFatalFailure(); id++) {
        const ssize_t more = ::send(deaf, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
        unsent_.erase(0, static_cast<std::size_t>(std::max<ssize_t>(more, 0)));
        ASSERT_EQ(receive(), refusal(id));
    }
}

// A control character is written as six in a reply.
TEST_F(Local, RepliesThatNobodyTakesAreBoundedInAll) {
    constexpr int crowd = 40, small = 4096;
    const std::string request = frame(R"({"ID":1,"RPCMethod":")" + std::string(16000, '\x01') + "\"}");
    connect();
    const int other = peer_;
    int gone = 0;
    for (int i = 0; i < crowd; i++) {
        setsockopt(connect(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        send_bytes(request + request);
        pump([] { return contains(logged.text, "(96064)\n"); }, 0);
        run_loop_for(1);
        gone += count_in_log("[INFO] (local) disconnect fd: ");
    }
    EXPECT_GT(gone, 4);
    EXPECT_LT(gone, crowd - 10);  // 1 MiB of 96 KiB each, and what the system takes
    peer_ = other;
    expect_served(1);
}

TEST_F(Local, TheOneLongestIdleMakesRoom) {
    const auto is_closed = [](int fd) {
        char byte;
        return recv(fd, &byte, 1, 0) == 0;
    };
    std::vector<int> crowd, others;
    const auto open = [this](std::vector<int> &where, const char *from) {
        connect(from);
        where.push_back(peer_);
    };
    open(others, "127.0.0.2");
    for (int i = 0; i < 64; i++)
        open(crowd, "127.0.0.1");
    peer_ = crowd[0];
    expect_served(1);
    // Of its own address the second now is the one.
    open(crowd, "127.0.0.1");
    EXPECT_TRUE(is_closed(crowd[1]));
    expect_served(2);
    while (others.size() < 32)
        open(others, "127.0.0.2");
    EXPECT_FALSE(is_closed(others[0]));
    // All is taken: of all the first that came.
    open(others, "127.0.0.3");
    EXPECT_TRUE(is_closed(others[0]));
    expect_served(3);
    EXPECT_EQ(std::count_if(crowd.begin(), crowd.end(), is_closed), 1);
    EXPECT_EQ(std::count_if(others.begin(), others.end(), is_closed), 1);
}

TEST_F(Local, AClientThatKeepsSendingGetsNoMoreThanItsTurn) {
    connect();
    const int other = peer_;
    connect();
    const int busy = peer_;
    flood();
    peer_ = other;
    send_bytes(unknown(-1));
    expect_log(R"("ID":-1,"Result")");
    const int before = count_in_log("->");
    ASSERT_LT(before, 1500);  // three buffers full
    peer_ = busy;
    pump([&] { return count_in_log("->") > 2 * before; });
}

TEST_F(Local, MemoryOfClientsThatHaveGoneIsGivenBack) {
    connect();
    expect_served(1);
    times_trimmed = 0;
    for (int i = 0; i < 20; i++)
        run_loop_for(1);
    close(peer_);
    opened_.erase(peer_);
    expect_log("[INFO] (local) disconnect fd: ");
    EXPECT_EQ(times_trimmed, 0);
    pump([] { return times_trimmed > 0; }, 2);
}

TEST_F(Local, ClientsGoWithTheirConnectionsAndWithTheServer) {
    connect();
    const int idle = peer_;
    connect();
    const int in_frame = peer_;
    send_bytes(unknown(1).substr(0, 20));
    connect();
    const linger at_once{1, 0};
    setsockopt(peer_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(peer_);
    opened_.erase(peer_);
    expect_log("[INFO] (local) disconnect fd: ");
    // Closed in its own request, which its record outlives.
    connect();
    const int faulty = peer_;
    send_bytes(be32(0) + "x");
    pump([] { return contains(logged.text, "invalid msg header"); }, 0);

    logged.text.clear();
    server_.reset();
    EXPECT_EQ(logged.text.find("[INFO] (local) server stop "), 0u);
    EXPECT_EQ(count_in_log("disconnect fd: "), 2);
    for (const int fd : {idle, in_frame, faulty}) {
        peer_ = fd;
        expect_closed();
    }
}

}  // namespace
}  // namespace arvok
