#include "home.h"

#include <arpa/inet.h>
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

#include "base/handle.h"
#include "base/loop.h"
#include "base/stream.h"

extern "C" {
#include <libubox/usock.h>
#include <libubus.h>
}

namespace arvok::bench {
namespace {

constexpr char agent_address[] = "192.168.1.2";
constexpr char echo_port[] = "32769";
constexpr char echo_option[] = "--echo";
constexpr char called_object[] = "qzcapd.system";
constexpr char called_method[] = "terminalnum";
constexpr std::size_t unsent_max = 256 * 1024;
constexpr int patience_s = 30;  // with whoever has to connect or to answer

[[noreturn]] void fail_with_errno(const char *what) {
    fail(std::string(what) + ": " + std::strerror(errno));
}

// Whether there is something to read, or to accept, within so many milliseconds.
bool waits(const descriptor &fd, int ms) {
    pollfd ready{fd.get(), POLLIN, 0};
    return poll(&ready, 1, ms) > 0;
}

int call_platform(ubus_context *bus, std::uint32_t object, const char *method) {
    static struct blob_buf buf;
    blob_buf_init(&buf, 0);
    return ubus_invoke(
        bus, object, method, buf.head, [](ubus_request *, int, blob_attr *) {}, nullptr, 1000);
}

using bus_handle = handle<ubus_context, &ubus_free>;

bus_handle open_bus(const char *object, std::uint32_t &id) {
    bus_handle bus(ubus_connect(std::getenv("UBUS_SOCKET")));
    if (!bus || ubus_lookup_id(bus.get(), object, &id) != 0)
        fail("no bus, or not the platform's");
    return bus;
}

// The first message of a connection to the bare echo.
struct echo_order {
    std::uint32_t request_size, answer_size, calls;
};

// The bare echo: reads a frame, answers with as many bytes as it has been told to.
class echo_server {
  public:
    void serve() {
        if (!listener_)
            fail_with_errno("echo");
        watch_.start(listener_.get());
        uloop_run();
    }

  private:
    void arrived() {
        if (const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK); fd >= 0)
            stream_.open(fd);
    }
    void readable(std::size_t available) {
        if (request_.empty()) {
            if (available < sizeof order_)
                return;
            available -= stream_.read(reinterpret_cast<char *>(&order_), sizeof order_);
            request_.resize(order_.request_size);
            answer_.assign(order_.answer_size, 'x');
        }
        for (; available >= request_.size(); available -= request_.size()) {
            stream_.read(request_.data(), request_.size());
            for (std::uint32_t i = 0; i < order_.calls; i++)
                if (call_platform(bus_.get(), called_, called_method) != 0)
                    return closed();
            stream_.write(answer_);
        }
    }
    void closed() {
        stream_.close();
        request_.clear();
    }

    std::uint32_t called_ = 0;
    const bus_handle bus_ = open_bus(called_object, called_);
    const descriptor listener_{usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, agent_address, echo_port)};
    readable_watch watch_{bind<&echo_server::arrived>(*this)};
    stream stream_{{.read = bind<&echo_server::readable>(*this), .broken = bind<&echo_server::closed>(*this)},
                   unsent_max};
    echo_order order_{};
    std::string request_, answer_;  // of whole frames; empty until the sizes are known
};

int serve_echo() {
    uloop_init();
    echo_server().serve();
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

connection::connection(descriptor fd) : fd_(std::move(fd)) {
    if (!fd_)
        fail_with_errno("connection");
    const timeval limit{patience_s, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

bool connection::readable() const {
    const int on = 1;
    setsockopt(fd_.get(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    return waits(fd_, 0);
}

void connection::read(char *to, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::read(fd_.get(), to, size);
        if (got == 0)
            errno = ECONNRESET;
        if (got <= 0)
            fail_with_errno("connection");
        to += got;
        size -= static_cast<std::size_t>(got);
    }
}

void connection::write(std::string_view bytes) {
    if (::write(fd_.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        fail_with_errno("connection");
}

std::string connection::read_frame(std::size_t header_size) {
    std::string frame(header_size, '\0');
    read(frame.data(), header_size);
    std::uint32_t length;
    std::memcpy(&length, frame.data() + header_size - sizeof length, sizeof length);
    frame.resize(header_size + ntohl(length));
    read(frame.data() + header_size, frame.size() - header_size);
    return frame;
}

connection connect_to_agent(const char *port) {
    for (int tries = 0; tries < 1000; tries++, usleep(1000))
        if (descriptor fd(usock(USOCK_TCP | USOCK_NUMERIC, agent_address, port)); fd)
            return connection(std::move(fd));
    fail_with_errno("connection");
}

listener::listener(const char *address, const char *port)
    : fd_(usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, address, port)) {
    if (!fd_)
        fail_with_errno("listen");
}

connection listener::accept() {
    if (!waits(fd_, patience_s * 1000))
        fail("nobody connects, see bench.log");
    return connection(descriptor(::accept(fd_.get(), nullptr, nullptr)));
}

bool listener::pending() const {
    return waits(fd_, 0);
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
    link.write({reinterpret_cast<const char *>(&order), sizeof order});
    const std::string request(request_size, 'x');
    std::string answer(answer_size, '\0');
    for (auto _ : state) {
        link.write(request);
        link.read(answer.data(), answer.size());
    }
}

void bus_call(benchmark::State &state, const char *object, const char *method) {
    std::uint32_t id = 0;
    const bus_handle bus = open_bus(object, id);
    for (auto _ : state)
        if (call_platform(bus.get(), id, method) != 0)
            state.SkipWithError("call failed");
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

}  // namespace arvok::bench
