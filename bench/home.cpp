#include "home.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>
#include <utility>

#include "common/stream.h"

extern "C" {
#include <libubox/uloop.h>
#include <libubox/usock.h>
#include <libubus.h>
}

namespace arvok {
namespace {

constexpr char agent_address[] = "192.168.1.2";
constexpr char echo_port[] = "32769";
constexpr char echo_option[] = "--echo";
constexpr char called_object[] = "qzcapd.system";
constexpr char called_method[] = "terminalnum";
constexpr int patience_s = 30;  // with whoever has to connect or to answer

[[noreturn]] void fail_with_errno(const char *what) {
    fail(std::string(what) + ": " + std::strerror(errno));
}

bool is_ready(int fd) {
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 0) > 0;
}

// --- the bare echo: reads a frame, answers with as many bytes as it has been told to ---

struct echo_server {
    tcp_stream stream;
    uloop_fd listener;
    int request_len = 0;  // of whole frames; 0 until the lengths are known
    std::uint32_t calls = 0;
    ubus_context *bus = nullptr;
    std::uint32_t called_object = 0;
    std::vector<char> answer;
};
echo_server echo;

// The first message of a connection.
struct echo_order {
    std::uint32_t request_size, answer_size, calls;
};

int call_platform(ubus_context *bus, std::uint32_t object, const char *method) {
    static struct blob_buf buf;
    blob_buf_init(&buf, 0);
    return ubus_invoke(
        bus, object, method, buf.head, [](ubus_request *, int, blob_attr *) {}, nullptr, 1000);
}

void echo_read(tcp_stream &stream, int avail) {
    if (echo.request_len == 0) {
        echo_order order;
        if (avail < static_cast<int>(sizeof order))
            return;
        stream_read(stream, &order, sizeof order);
        echo.request_len = static_cast<int>(order.request_size);
        echo.answer.assign(order.answer_size, 'x');
        echo.calls = order.calls;
        avail -= static_cast<int>(sizeof order);
    }
    for (; avail >= echo.request_len; avail -= echo.request_len) {
        std::vector<char> request(static_cast<std::size_t>(echo.request_len));
        stream_read(stream, request.data(), echo.request_len);
        for (std::uint32_t i = 0; i < echo.calls; i++)
            if (call_platform(echo.bus, echo.called_object, called_method) != 0)
                return stream_close(stream);
        stream_write(stream, echo.answer.data(), static_cast<int>(echo.answer.size()));
    }
}

void echo_closed(tcp_stream &stream) {
    stream_close(stream);
    echo.request_len = 0;
}

int serve_echo() {
    uloop_init();
    echo.bus = ubus_connect(std::getenv("UBUS_SOCKET"));
    if (!echo.bus || ubus_lookup_id(echo.bus, called_object, &echo.called_object) != 0)
        fail("no bus, or not the platform's");
    stream_init(echo.stream, echo_read, echo_closed);
    echo.listener.fd = usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, agent_address, echo_port);
    if (echo.listener.fd < 0)
        fail_with_errno("echo");
    echo.listener.cb = [](uloop_fd *listener, unsigned int) {
        const int fd = accept(listener->fd, nullptr, nullptr);
        if (fd >= 0)
            stream_open(echo.stream, fd);
    };
    uloop_fd_add(&echo.listener, ULOOP_READ);
    uloop_run();
    stream_close(echo.stream);
    close(echo.listener.fd);
    ubus_free(echo.bus);
    uloop_done();
    return 0;
}

std::string get_status(std::initializer_list<const char *> names) {
    std::string items;
    for (const char *name : names)
        items += (items.empty() ? "" : ",") + std::string(R"({"name":")") + name + "\"}";
    return R"({"type":"get_status","sequence":7,"mac":"0200000000FE","get":[)" + items + "]}";
}

// Scheduling decides more than work what a round trip over two cores takes, and a request is never worked on
// in two places at once. So the whole home shares one core; it has a /proc of its own.
void share_one_core() {
    cpu_set_t allowed, one;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        fail_with_errno("cores");
    int core = CPU_SETSIZE - 1;
    while (core > 0 && !CPU_ISSET(core, &allowed))
        core--;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    for (const auto &entry : std::filesystem::directory_iterator("/proc"))
        if (const int pid = std::atoi(entry.path().filename().c_str()); pid > 0)
            sched_setaffinity(pid, sizeof one, &one);
}

// The smallest value that this share of the sorted values does not exceed.
double quantile(const std::vector<double> &sorted, double share) {
    return sorted[static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size()))) - 1];
}

std::string in_words(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, seconds < 1e-3 ? "%.1f us" : "%.2f ms",
                  seconds * (seconds < 1e-3 ? 1e6 : 1e3));
    return text;
}

constexpr char how_to_read[] =
    "status/X is what the other side waits for the answer. echo/X takes the same bytes, and as many platform "
    "calls, without\n"
    "the agent: the floor, of whose rate the last column says how much is left. Compare medians of one run, "
    "on a quiet\n"
    "machine: there, least and 95 % are close together.";

// One line per benchmark, in the order of their registration.
class table : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &context) override {
        PrintBasicContext(&GetErrorStream(), context);
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            row &of = rows_[run.family_index];
            of.name = run.run_name.function_name;
            if (run.error_occurred)
                of.error = run.error_message;
            else if (run.run_type == Run::RT_Iteration)
                of.times.push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
        }
    }
    void Finalize() override {
        for (auto &[index, of] : rows_)
            std::sort(of.times.begin(), of.times.end());
        std::printf("%-26s %10s %10s %10s %10s %9s\n", "", "least", "median", "95 %", "1/median", "of floor");
        for (auto &[index, of] : rows_) {
            if (!of.error.empty()) {
                std::printf("%-26s %s\n", of.name.c_str(), of.error.c_str());
                continue;
            }
            const double median = quantile(of.times, 0.5);
            std::printf("%-26s %10s %10s %10s %8.0f/s %9s\n", of.name.c_str(),
                        in_words(of.times.front()).c_str(), in_words(median).c_str(),
                        in_words(quantile(of.times, 0.95)).c_str(), 1 / median,
                        of_floor(of.name, median).c_str());
        }
    }

  private:
    struct row {
        std::string name, error;
        std::vector<double> times;  // per iteration, in seconds; one for each repetition
    };

    // How the rate of a round trip compares with that of the echo under it.
    std::string of_floor(const std::string &name, double median) const {
        const std::size_t slash = name.find('/');
        if (name.compare(0, slash, "echo") == 0)
            return "";
        for (const auto &[index, floor] : rows_)
            if (floor.name == "echo" + name.substr(slash) && !floor.times.empty())
                return std::to_string(std::lround(100 * quantile(floor.times, 0.5) / median)) + " %";
        return "";
    }

    std::map<std::int64_t, row> rows_;
};

}  // namespace

void fail(const std::string &what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

// --- programs ---

program::program(std::vector<const char *> args, output to) : pid_(fork()) {
    if (pid_ < 0)
        fail_with_errno("fork");
    if (pid_ > 0)
        return;
    const std::string log =
        to == output::log ? std::string(std::getenv("LAB_DIR")) + "/bench.log" : "/dev/null";
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    args.push_back(nullptr);
    execvp(args[0], const_cast<char *const *>(args.data()));
    _exit(127);
}

program::~program() {
    if (pid_ < 0)
        return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
}

void program::join() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    if (status != 0)
        fail("a program failed, see bench.log");
}

// --- connections ---

connection::connection(int fd) : fd_(fd) {
    if (fd < 0)
        fail_with_errno("connection");
    const timeval limit{patience_s, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

connection::connection(connection &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

connection &connection::operator=(connection &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

connection::~connection() {
    if (fd_ >= 0)
        close(fd_);
}

bool connection::readable() const {
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    return is_ready(fd_);
}

void connection::read(void *buf, std::size_t len) {
    for (auto *at = static_cast<char *>(buf); len > 0;) {
        const ssize_t got = ::read(fd_, at, len);
        if (got == 0)
            errno = ECONNRESET;
        if (got <= 0)
            fail_with_errno("connection");
        at += got;
        len -= static_cast<std::size_t>(got);
    }
}

void connection::write(const void *buf, std::size_t len) {
    if (::write(fd_, buf, len) != static_cast<ssize_t>(len))
        fail_with_errno("connection");
}

std::vector<char> connection::read_frame(int header_size, int (*body_length)(const void *header)) {
    std::vector<char> frame(static_cast<std::size_t>(header_size));
    read(frame.data(), frame.size());
    const auto len = static_cast<std::size_t>(body_length(frame.data()));
    frame.resize(frame.size() + len);
    read(frame.data() + header_size, len);
    return frame;
}

connection connect_to_agent(const char *port) {
    for (int tries = 0; tries < 1000; tries++, usleep(1000)) {
        const int fd = usock(USOCK_TCP | USOCK_NUMERIC, agent_address, port);
        if (fd >= 0)
            return connection(fd);
    }
    fail_with_errno("connection");
}

listener::listener(const char *address, const char *port)
    : fd_(usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, address, port)) {
    if (fd_ < 0)
        fail_with_errno("listen");
}

listener::~listener() {
    close(fd_);
}

connection listener::accept() {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, patience_s * 1000) == 0)
        fail("nobody connects, see bench.log");
    return connection(::accept(fd_, nullptr, nullptr));
}

bool listener::pending() const {
    return is_ready(fd_);
}

// --- requests ---

const std::vector<status_request> status_requests = {
    {"no_platform_call", get_status({"arvokstat"}), 0},
    {"one_platform_call", get_status({"terminalNum"}), 1},
    {"all_37_items", get_status({"wifi",           "wifitimer",   "ledswitch",       "wifiswitch",
                                 "wpsswitch",      "syncswitch",  "bandsupport",     "diaginfo",
                                 "cpurate",        "cputemp",     "memoryuserate",   "flashusage",
                                 "flashfree",      "uploadspeed", "downloadspeed",   "wlanstats",
                                 "channel",        "onlineTime",  "terminalNum",     "load",
                                 "real_devinfo",   "arvokstat",   "neighborinfo",    "networktype",
                                 "workmode",       "webServer",   "netstatPorts",    "flashStat",
                                 "mapInfo",        "mapTopology", "ethWanPortIndex", "ethLanPortIndex",
                                 "channelQuality", "capability",  "blacklist",       "whitelist",
                                 "waninfo"}),
     31},
};

// --- floors ---

void bare_echo(benchmark::State &state, std::size_t request_size, std::size_t answer_size,
               std::uint32_t calls) {
    connection link = connect_to_agent(echo_port);
    const echo_order order{static_cast<std::uint32_t>(request_size), static_cast<std::uint32_t>(answer_size),
                           calls};
    link.write(&order, sizeof order);
    const std::vector<char> request(request_size, 'x');
    std::vector<char> answer(answer_size);
    for (auto _ : state) {
        link.write(request.data(), request.size());
        link.read(answer.data(), answer.size());
    }
}

void bus_call(benchmark::State &state, const char *object, const char *method) {
    ubus_context *ctx = ubus_connect(std::getenv("UBUS_SOCKET"));
    std::uint32_t id = 0;
    if (!ctx || ubus_lookup_id(ctx, object, &id) != 0)
        fail("no bus, or not the platform's");
    for (auto _ : state)
        if (call_platform(ctx, id, method) != 0)
            state.SkipWithError("call failed");
    ubus_free(ctx);
}

void run_benchmarks() {
    table results;
    benchmark::RunSpecifiedBenchmarks(&results);
}

int measure_in_home(int argc, char **argv, const std::function<void()> &measure, const char *notes) {
    signal(SIGPIPE, SIG_IGN);
    if (argc == 2 && std::string_view(argv[1]) == echo_option)
        return serve_echo();
    // What alternates has the same conditions.
    std::vector<char *> args(argv, argv + argc);
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleaved);
    int count = argc + 1;
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
        return 1;
    if (!std::getenv("LAB_DIR"))
        fail("a home is needed: lab/home --peers none --no-agent -- " + std::string(argv[0]));
    share_one_core();
    const program echo_process({"lab-ap", argv[0], echo_option});
    measure();
    std::printf("\n%s%s\n", notes, how_to_read);
    return 0;
}

}  // namespace arvok
