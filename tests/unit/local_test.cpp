// The local server: its framing under every split of the bytes, its requests, and clients that are a burden.

#include <algorithm>

#include "common/crypto.h"
#include "peer_fixture.h"

namespace arvok {
namespace {

std::string frame(const std::string &body) {
    return be32(static_cast<std::uint32_t>(body.size())) + body;
}
// A request that nobody knows: it shows in the log and in a reply.
std::string unknown(int id) {
    return frame(R"({"RPCMethod":"Nothing","ID":)" + std::to_string(id) + "}");
}
std::string refusal(int id) {
    return R"({"Ack":"Nothing","ID":)" + std::to_string(id) +
           R"(,"Result":-1,"FailReason":"UNRECOGNIZE_REQUEST"})";
}
std::string base64(const std::string &data, bool encode = true) {
    text_ptr text;
    _do_b64_code(data.data(), static_cast<int>(data.size()), text, encode);
    return text.get();
}

class Local : public RemoteEnd {
  protected:
    Local() : RemoteEnd(sizeof(std::uint32_t)) {}

    void SetUp() override {
        RemoteEnd::SetUp();
        ls_init();
        ls_run();
    }
    void TearDown() override {
        ls_done();
        for (const int fd : opened_)
            close(fd);
        peer_ = -1;
        RemoteEnd::TearDown();
    }

    // A client that the server has accepted, and its record. It is the one that sends and receives from now
    // on.
    local_client &connect() {
        const std::size_t before = ls->clients.size();
        knock();
        pump([&] { return ls->clients.size() == before + 1; });
        log();
        return *ls->clients.front();
    }
    // Connects without waiting for the server.
    void knock() {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in addr = loopback(17998);
        ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        opened_.push_back(fd);
        use(fd);
    }
    void use(int fd) {
        peer_ = fd;
        inbox_.clear();
    }
    std::string receive() { return receive_frame().second; }
    void expect_served(int id) {
        send_bytes(unknown(id));
        EXPECT_EQ(receive(), refusal(id));
    }
    // Sends requests, numbered on, for as long as the socket takes them.
    void flood() {
        for (;;) {
            const ssize_t sent = ::send(peer_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
            if (sent < 0)
                return;
            unsent_.erase(0, static_cast<std::size_t>(sent));
            while (unsent_.size() < 4096)
                unsent_ += unknown(requests_++);
        }
    }
    static int waiting(local_client &client) { return ustream_pending_data(&client.stream.sf.stream, true); }
    int count_in_log(const std::string &text) {
        int count = 0;
        for (std::size_t at = 0; (at = log_text().find(text, at)) != std::string::npos; at++)
            count++;
        return count;
    }

    std::vector<int> opened_;
    std::string unsent_;  // of a flood
    int requests_ = 0;    // in it
};

TEST_F(Local, AFrameInTwoSegmentsIsHandledWhereverItIsSplit) {
    local_client &client = connect();
    const std::string whole = unknown(1);
    const std::size_t body = whole.size() - 4;
    for (std::size_t cut = 1; cut < whole.size(); cut++) {
        log();
        send_bytes(whole.substr(0, cut));
        turn();
        EXPECT_EQ(client.pending_len, cut > 4 ? static_cast<int>(body) : 0) << cut;
        const std::string wait = "[INFO] (local) wait for the TCP fragmentation, " + std::to_string(cut - 4) +
                                 "/" + std::to_string(body) + "\n";
        EXPECT_EQ(log(), cut > 8 ? wait : "") << cut;
        send_bytes(whole.substr(cut));
        EXPECT_EQ(receive(), refusal(1)) << cut;
        EXPECT_EQ(client.pending_len, 0);
    }
    std::string several;
    for (int id = 0; id < 5; id++)
        several += unknown(id);
    for (const char byte : several)
        send_bytes(std::string(1, byte)), turn();
    send_bytes(several);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(receive(), refusal(i % 5));
}

TEST_F(Local, AShortBodyWaitsForMoreBytes) {
    local_client &client = connect();
    for (const char *body : {"7", "[]", "\"a\"", "null"}) {
        log();
        send_bytes(frame(body));
        turn();
        EXPECT_EQ(client.pending_len, static_cast<int>(std::strlen(body)));
        EXPECT_EQ(log(), "");
        expect_served(2);
        EXPECT_EQ(log_text().find("[INFO] (local) <- " + std::string(body) + " (" +
                                  std::to_string(std::strlen(body)) +
                                  ")\n[ERROR] (local) RPCMethod or ID not found\n"
                                  "[ERROR] (local) invalid server msg\n"),
                  0u);
    }
}

TEST_F(Local, AFramingFaultEndsThatClientOnly) {
    connect();
    const int other = peer_;
    for (const std::uint32_t length : {0u, 16385u, 0xffffffffu}) {
        connect();
        log();
        // What follows in the same segment is abandoned.
        send_bytes(be32(length) + unknown(3));
        expect_log("[ERROR] (local) invalid msg header, " + std::to_string(static_cast<int>(length)) +
                   "\n[INFO] (local) disconnect fd: ");
        expect_closed();
        pump([] { return ls->clients.size() == 1; });
        EXPECT_EQ(count_in_log("->"), 0);
    }
    use(other);
    expect_served(4);
    // The longest body, twice in a row.
    std::string body = unknown(5).substr(4);
    body.insert(1, 16384 - body.size(), ' ');
    send_bytes(frame(body) + frame(body));
    EXPECT_EQ(receive(), refusal(5));
    EXPECT_EQ(receive(), refusal(5));
}

TEST_F(Local, AMessageFaultIsLoggedAndNotAnswered) {
    connect();
    const std::string incomplete =
        "[ERROR] (local) RPCMethod or ID not found\n[ERROR] (local) invalid server msg\n";
    const struct {
        std::string body, lines;
    } cases[] = {
        {"no json, this", "[ERROR] (local) invalid msg (not json format)\n"},
        {std::string("{\"RPC\0\":1}", 10), "[ERROR] (local) invalid msg (not json format)\n"},
        {R"({"RPCMethod":"Post1","ID":"1"})", incomplete},
        {R"({"RPCMethod":"Post1"})", incomplete},
        {R"({"RPCMethod":7,"ID":1})", incomplete},
        {R"({"ID":1,"rpcmethod":"Post1"})", incomplete},
        {R"(["RPCMethod","ID"])", incomplete},
    };
    for (const auto &c : cases) {
        log();
        send_bytes(frame(c.body));
        expect_log("[INFO] (local) <- " + std::string(c.body.c_str()) + " (" + std::to_string(c.body.size()) +
                   ")\n" + c.lines);
        expect_served(6);
    }
}

TEST_F(Local, Post1TellsTheIdentityOrWhatIsWrong) {
    connect();
    const auto parameter = [](const std::string &command) { return "\"" + base64(command) + "\""; };
    const std::string identity =
        R"("BussinessStatus":"","MAC":"021122334455","LOID":"","DevType":"1","Version":"V2019.1.0"})";
    const struct {
        std::string parameter, answer;
    } cases[] = {
        {parameter(R"({"CmdType":"GET_SN_INFO","SequenceId":"1"})"),
         R"("SequenceId":"1","Status":0,)" + identity},
        {parameter(R"({"SequenceId":"","CmdType":"GET_SN_INFO","x":1})"),
         R"("SequenceId":"","Status":0,)" + identity},
        {parameter(R"({"CmdType":"GET_SN_INFO"})"), R"("Status":1,"FailReason":"invalid seq"})"},
        {parameter(R"({"CmdType":"GET_SN_INFO","SequenceId":1})"),
         R"("Status":1,"FailReason":"invalid seq"})"},
        {parameter(R"({"CmdType":"GET_SN","SequenceId":"1"})"),
         R"("SequenceId":"1","Status":1,"FailReason":"invalid CmdType"})"},
        {parameter(R"({"CmdType":1})"), R"("Status":1,"FailReason":"invalid CmdType"})"},
        {parameter("no json, this"), R"("Status":1,"FailReason":"invalid CmdType"})"},
        {"\"\"", R"("Status":1,"FailReason":"invalid CmdType"})"},
        {"\"e30\"", R"("Status":1,"FailReason":"Parameter base64 encode failed"})"},
        {"\"?{}?\"", R"("Status":1,"FailReason":"Parameter base64 encode failed"})"},
        {R"({"CmdType":"GET_SN_INFO"})", R"("Status":1,"FailReason":"invalid Parameter"})"},
        {"null", R"("Status":1,"FailReason":"invalid Parameter"})"},
    };
    for (const auto &c : cases) {
        send_bytes(frame(R"({"RPCMethod":"Post1","ID":4294967296,"Parameter":)" + c.parameter + "}"));
        const std::string reply = receive(), begin = R"({"Ack":"Post1","ID":4294967296,"Result":0,)"
                                                     R"("return_Parameter":")";
        ASSERT_EQ(reply.substr(0, begin.size()), begin);
        EXPECT_EQ(base64(reply.substr(begin.size(), reply.size() - begin.size() - 2), false),
                  R"({"CmdType":"GET_SN_INFO",)" + c.answer);
        expect_log("[INFO] (local) -> " + reply + " (" + std::to_string(reply.size()) + ")\n");
    }
}

TEST_F(Local, AClientThatDoesNotReadIsNotReadFrom) {
    connect();
    const int other = peer_;
    local_client &stuck = connect();
    const int deaf = peer_, small = 65536;
    setsockopt(stuck.stream.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    int held = 0, most = 0;
    pump([&] {
        flood();
        held += stuck.stream.held;
        most = std::max(most, waiting(stuck));
        return held == 50;
    });
    EXPECT_LT(most, 16384 + 100);  // one reply more than the limit
    use(other);
    expect_served(-1);

    // When it reads, it gets everything, in order.
    use(deaf);
    for (int id = 0; id < requests_ && !HasFatalFailure(); id++) {
        const ssize_t sent = ::send(deaf, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
        unsent_.erase(0, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        ASSERT_EQ(receive(), refusal(id));
    }
    EXPECT_FALSE(stuck.stream.held);
    EXPECT_EQ(waiting(stuck), 0);
}

TEST_F(Local, AClientThatKeepsSendingGetsNoMoreThanItsTurn) {
    connect();
    const int other = peer_;
    connect();
    const int busy = peer_;
    flood();
    log();
    use(other);
    send_bytes(unknown(-1));
    pump([&] { return log_text().find(R"("ID":-1,"Result")") != std::string::npos; });
    const int before = count_in_log("->");
    ASSERT_LT(before, 1500);  // three buffers full
    use(busy);
    pump([&] { return count_in_log("->") > 2 * before; });
}

TEST_F(Local, ClientsGoWithTheirConnections) {
    connect();
    const int other = peer_;
    connect();
    send_bytes(unknown(1).substr(0, 20));
    expect_log("wait for the TCP fragmentation");
    shutdown(peer_, SHUT_RDWR);
    expect_log("[INFO] (local) disconnect fd: ");
    pump([] { return ls->clients.size() == 1; });

    connect();
    const linger at_once{1, 0};
    setsockopt(peer_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    send_bytes(unknown(2));
    close(peer_);
    opened_.pop_back();
    pump([] { return ls->clients.size() == 1; });
    use(other);
    expect_served(3);
}

TEST_F(Local, StoppingClosesEveryClient) {
    connect();
    const int idle = peer_;
    connect();
    const int in_frame = peer_;
    send_bytes(unknown(1).substr(0, 20));
    expect_log("wait for the TCP fragmentation");
    local_client &stuck = connect();
    pump([&] { return flood(), stuck.stream.held; });
    // Closed in its own read callback, which its record outlives.
    connect();
    const int faulty = peer_;
    send_bytes(be32(0) + "x");
    for (int turns = 0; turns < 100 && log_text().find("invalid msg header") == std::string::npos; turns++)
        uloop_run_timeout(0);
    EXPECT_EQ(ls->clients.size(), 4u);
    log();
    ls_done();
    EXPECT_EQ(log().find("[INFO] (local) server stop "), 0u);
    EXPECT_TRUE(ls->clients.empty());
    for (const int fd : {idle, in_frame, faulty}) {
        use(fd);
        expect_closed();
    }
    ls_run();
    connect();
    expect_served(2);
}

// A peer that has the next bytes ready whenever the last are taken: it writes from within the read callback.
int ready_peer, rounds, rounds_in_turn, most_in_turn;

TEST(Stream, APeerThatIsAlwaysReadyGetsNoMoreThanItsTurn) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    ready_peer = ends[1];
    uloop_init();
    tcp_stream stream;
    const auto take_and_write = [](tcp_stream &s, int avail) {
        char bytes[100];
        for (; avail > 0; avail -= 100)
            stream_read(s, bytes, sizeof bytes);
        most_in_turn = std::max(most_in_turn, ++rounds_in_turn);
        if (++rounds < 2000) {
            EXPECT_EQ(write(ready_peer, bytes, sizeof bytes), 100);
        }
    };
    stream_init(stream, take_and_write, [](tcp_stream &) {});
    stream_open(stream, ends[0]);
    uloop_timeout turn{};
    turn.cb = [](uloop_timeout *t) {
        rounds_in_turn = 0;
        uloop_timeout_set(t, 0);
    };
    uloop_timeout_set(&turn, 0);
    char first[100] = "";
    ASSERT_EQ(write(ready_peer, first, sizeof first), 100);
    for (int i = 0; rounds < 2000 && i < 1000; i++)
        uloop_run_timeout(1);
    EXPECT_EQ(rounds, 2000);
    EXPECT_LT(most_in_turn, 200);
    uloop_timeout_cancel(&turn);
    stream_release(stream);
    close(ready_peer);
    uloop_done();
}

}  // namespace
}  // namespace arvok
