// What a status request costs through the encrypted link, from the gateway's side: the agent's answers beside
// the floor under them, in one run. Runs in a home without gateway and agent; it is the gateway, and starts
// the agent itself.
//
//   status/...      get_status round trips against the agent
//   echo/...        the same frames, answered by a bare loop-and-stream server on the agent's host
//   bus/...         the platform call that the answer needs, made directly on the bus
//
// Figures only; nothing is asserted.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "arvok_client/frame.h"
#include "common/crypto.h"
#include "common/json.h"
#include "common/stream.h"
#include "common/text.h"

extern "C" {
#include <libubox/uloop.h>
#include <libubox/usock.h>
#include <libubus.h>
}

namespace arvok {
namespace {

constexpr char gateway_address[] = "192.168.1.1";
constexpr char agent_address[] = "192.168.1.2";
constexpr char link_port[] = "32768";
constexpr char echo_port[] = "32769";

[[noreturn]] void die(const char *what) {
    std::perror(what);
    std::exit(1);
}

// Starts a program, with what it prints going into a log of the home.
pid_t spawn(std::vector<const char *> args) {
    const pid_t child = fork();
    if (child == 0) {
        const std::string log = std::string(std::getenv("LAB_DIR")) + "/bench.log";
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        args.push_back(nullptr);
        execvp(args[0], const_cast<char *const *>(args.data()));
        _exit(127);
    }
    return child;
}

void stop(pid_t child) {
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

// --- the bare echo: reads a frame, answers with the one that the bench gave it first ---

struct echo_server {
    tcp_stream stream;
    uloop_fd listener;
    int request_len = 0;  // of whole frames; 0 until the lengths are known
    std::vector<char> answer;
};
echo_server echo;

void echo_read(tcp_stream &stream, int avail) {
    // The first message: both lengths, then the answer to give.
    std::uint32_t lengths[2];
    if (echo.request_len == 0) {
        if (avail < static_cast<int>(sizeof lengths))
            return;
        stream_read(stream, lengths, sizeof lengths);
        echo.request_len = static_cast<int>(lengths[0]);
        echo.answer.assign(lengths[1], 'x');
        avail -= static_cast<int>(sizeof lengths);
    }
    for (; avail >= echo.request_len; avail -= echo.request_len) {
        std::vector<char> request(static_cast<std::size_t>(echo.request_len));
        stream_read(stream, request.data(), echo.request_len);
        stream_write(stream, echo.answer.data(), static_cast<int>(echo.answer.size()));
    }
}

void echo_closed(tcp_stream &stream) {
    stream_close(stream);
    echo.request_len = 0;
}

int serve_echo() {
    uloop_init();
    stream_init(echo.stream, echo_read, echo_closed);
    echo.listener.fd = usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, agent_address, echo_port);
    if (echo.listener.fd < 0)
        die("echo");
    echo.listener.cb = [](uloop_fd *listener, unsigned int) {
        const int fd = accept(listener->fd, nullptr, nullptr);
        if (fd >= 0)
            stream_open(echo.stream, fd);
    };
    uloop_fd_add(&echo.listener, ULOOP_READ);
    uloop_run();
    stream_close(echo.stream);
    close(echo.listener.fd);
    uloop_done();
    return 0;
}

// --- a blocking connection ---

void read_all(int fd, void *buf, std::size_t len) {
    for (auto *at = static_cast<char *>(buf); len > 0;) {
        const ssize_t got = read(fd, at, len);
        if (got <= 0)
            die("connection");
        at += got;
        len -= static_cast<std::size_t>(got);
    }
}

void write_all(int fd, const void *buf, std::size_t len) {
    if (write(fd, buf, len) != static_cast<ssize_t>(len))
        die("connection");
}

std::vector<char> read_frame(int fd) {
    std::vector<char> frame(frame_header_size);
    read_all(fd, frame.data(), frame.size());
    const int len = frame_body_length(frame.data());
    frame.resize(frame.size() + static_cast<std::size_t>(len));
    read_all(fd, frame.data() + frame_header_size, static_cast<std::size_t>(len));
    return frame;
}

// --- the gateway's end of the link ---

class gateway {
  public:
    gateway() {
        const int listener = usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, gateway_address, link_port);
        if (listener < 0)
            die("listen");
        agent_ = spawn({"lab-ap", "arvokclt", "-g", gateway_address});
        fd_ = accept(listener, nullptr, nullptr);
        close(listener);
        if (fd_ < 0)
            die("accept");
        receive();  // keyngreq
        send(R"({"type":"keyngack","sequence":0,"mac":"0200000000FE","keymode":"dh"})");
        const json_ptr dh = receive();
        const cJSON *data = json_member(dh.get(), "data");
        dh_key key;
        key.p = _get_json_str(data, "dh_p");
        key.g = _get_json_str(data, "dh_g");
        key.client_pub = _get_json_str(data, "dh_key");
        gen_server_dh_aes_key(key);
        send(R"({"type":"dh","sequence":1,"mac":"0200000000FE","data":{"dh_key":")" +
             std::string(key.server_pub.get()) + R"("}})");
        key_ = std::move(key.aes_key);
        receive();  // dev_reg
    }
    ~gateway() {
        close(fd_);
        stop(agent_);
    }

    std::vector<char> request_frame(const std::string &items) const {
        return encode(R"({"type":"get_status","sequence":7,"mac":"0200000000FE","get":[)" + items + "]}");
    }
    // One round trip; keepalives that come in between are answered. Returns the answer's frame.
    std::vector<char> round_trip(const std::vector<char> &request) {
        write_all(fd_, request.data(), request.size());
        for (;;) {
            std::vector<char> frame = read_frame(fd_);
            // Only keepalives are as short as that.
            if (frame.size() > 100 || !answer_keepalive(frame))
                return frame;
        }
    }

  private:
    std::vector<char> encode(const std::string &text) const {
        return frame_encode(text.c_str(), static_cast<int>(text.size()), key_.get());
    }
    void send(const std::string &text) const {
        const std::vector<char> frame = encode(text);
        write_all(fd_, frame.data(), frame.size());
    }
    json_ptr decode(std::vector<char> frame) const {
        frame.push_back('\0');
        const int len = static_cast<int>(frame.size()) - frame_header_size - 1;
        return json_parse(frame_body_text(frame.data() + frame_header_size, len, key_.get()).get());
    }
    json_ptr receive() { return decode(read_frame(fd_)); }
    bool answer_keepalive(const std::vector<char> &frame) const {
        const json_ptr message = decode(frame);
        if (_strcmp(json_text(message.get(), "type"), "keepalive") != 0)
            return false;
        send(R"({"type":"ack","sequence":)" + std::to_string(_get_json_int(message.get(), "sequence", -1)) +
             "}");
        return true;
    }

    int fd_ = -1;
    pid_t agent_ = -1;
    bytes_ptr key_;
};

// --- the benchmarks ---

struct request_kind {
    const char *name;
    std::string items;
};

std::string named(std::initializer_list<const char *> names) {
    std::string items;
    for (const char *name : names)
        items += (items.empty() ? "" : ",") + std::string(R"({"name":")") + name + "\"}";
    return items;
}

const request_kind kinds[] = {
    {"no_platform_call", named({"arvokstat"})},
    {"one_platform_call", named({"terminalNum"})},
    {"all_37_items", named({"wifi",           "wifitimer",   "ledswitch",       "wifiswitch",
                            "wpsswitch",      "syncswitch",  "bandsupport",     "diaginfo",
                            "cpurate",        "cputemp",     "memoryuserate",   "flashusage",
                            "flashfree",      "uploadspeed", "downloadspeed",   "wlanstats",
                            "channel",        "onlineTime",  "terminalNum",     "load",
                            "real_devinfo",   "arvokstat",   "neighborinfo",    "networktype",
                            "workmode",       "webServer",   "netstatPorts",    "flashStat",
                            "mapInfo",        "mapTopology", "ethWanPortIndex", "ethLanPortIndex",
                            "channelQuality", "capability",  "blacklist",       "whitelist",
                            "waninfo"})},
};

void status_request(benchmark::State &state, gateway &link, const request_kind &kind) {
    const std::vector<char> request = link.request_frame(kind.items);
    for (auto _ : state)
        benchmark::DoNotOptimize(link.round_trip(request));
    state.SetItemsProcessed(state.iterations());
}

void bare_echo(benchmark::State &state, gateway &link, const request_kind &kind) {
    const std::vector<char> request = link.request_frame(kind.items);
    std::vector<char> answer = link.round_trip(request);
    int fd = -1;
    for (int tries = 0; fd < 0 && tries < 1000; tries++, usleep(1000))
        fd = usock(USOCK_TCP | USOCK_NUMERIC, agent_address, echo_port);
    if (fd < 0)
        die("echo");
    const std::uint32_t lengths[] = {static_cast<std::uint32_t>(request.size()),
                                     static_cast<std::uint32_t>(answer.size())};
    write_all(fd, lengths, sizeof lengths);
    for (auto _ : state) {
        write_all(fd, request.data(), request.size());
        read_all(fd, answer.data(), answer.size());
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}

void raw_bus_call(benchmark::State &state) {
    ubus_context *ctx = ubus_connect(std::getenv("UBUS_SOCKET"));
    std::uint32_t id = 0;
    if (!ctx || ubus_lookup_id(ctx, "qzcapd.system", &id) != 0)
        die("bus");
    struct blob_buf buf {};
    blob_buf_init(&buf, 0);
    for (auto _ : state)
        if (ubus_invoke(
                ctx, id, "terminalnum", buf.head, [](ubus_request *, int, blob_attr *) {}, nullptr, 1000) !=
            0)
            state.SkipWithError("call failed");
    blob_buf_free(&buf);
    ubus_free(ctx);
    state.SetItemsProcessed(state.iterations());
}

int run(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    if (argc == 2 && std::string_view(argv[1]) == "--echo")
        return serve_echo();
    if (!std::getenv("LAB_DIR")) {
        std::fprintf(stderr, "%s runs in a home: lab/home --peers none --no-agent -- %s\n", argv[0], argv[0]);
        return 1;
    }
    const pid_t echo_process = spawn({"lab-ap", argv[0], "--echo"});
    {
        gateway link;
        for (const request_kind &kind : kinds) {
            const auto name = [&](const char *what) { return std::string(what) + "/" + kind.name; };
            benchmark::RegisterBenchmark(name("status").c_str(), status_request, std::ref(link), kind)
                ->UseRealTime();
            benchmark::RegisterBenchmark(name("echo").c_str(), bare_echo, std::ref(link), kind)
                ->UseRealTime();
        }
        benchmark::RegisterBenchmark("bus/terminalnum", raw_bus_call)->UseRealTime();
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
    }
    stop(echo_process);
    return 0;
}

}  // namespace
}  // namespace arvok

int main(int argc, char **argv) {
    return arvok::run(argc, argv);
}
