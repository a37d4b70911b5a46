// What the agent's building blocks cost: frames by message size, the hand-off to the loop thread, the
// evaluation of schedules, one bus call. Figures only; nothing is asserted.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "access/decision.h"
#include "base/crypto.h"
#include "base/json.h"
#include "base/task_queue.h"
#include "base/text.h"
#include "gateway/frame.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

namespace arvok::bench {
namespace {

// A message of nearly `size` characters: an array of small objects, as status answers are.
std::string message(std::int64_t size) {
    constexpr int around = 64, each = 48;  // bytes
    json::array list;
    for (std::int64_t at = around; at + each <= size; at += each)
        list.add(json::object().text("mac", "02AABBCCDD01").text("band", "5G").digits("rssi", -51).take());
    json::object whole;
    whole.text("type", "status").number("sequence", 7).text("mac", "021122334455").add("list", list.take());
    return whole.take().take();
}

std::optional<aes> link_cipher(bool encrypted) {
    if (!encrypted)
        return std::nullopt;
    return aes(aes_mode::cbc, aes_key_of("0123456789abcdef"));
}

std::string frame(std::string text, std::optional<aes> &cipher) {
    gateway::make_frame(text, cipher ? &*cipher : nullptr);
    return text;
}

void frame_encoding(benchmark::State &state) {
    std::optional<aes> cipher = link_cipher(state.range(1));
    for (auto _ : state)
        benchmark::DoNotOptimize(frame(message(state.range(0)), cipher));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void frame_decoding(benchmark::State &state) {
    std::optional<aes> cipher = link_cipher(state.range(1));
    const std::string received = frame(message(state.range(0)), cipher);
    const std::size_t header = gateway::link_frames.header_size;
    for (auto _ : state) {
        std::string body = received.substr(header, *gateway::link_frames.body_length(received));
        if (cipher)
            cipher->decrypt(body);
        benchmark::DoNotOptimize(json::parse(body));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

std::string host_mac(std::int64_t number) {
    return format("02C0FF%06X", static_cast<unsigned>(number));
}

std::string time_of_day(std::int64_t hour, std::int64_t minute) {
    return format("%02d:%02d", static_cast<int>(hour % 24), static_cast<int>(minute % 60));
}

// What the agent does at a boundary, but for the platform's part: decides for each host with rules and on the
// LAN, and looks for the next boundary. The log goes nowhere.
void schedule_evaluation(benchmark::State &state) {
    const std::int64_t rules = state.range(0), hosts = state.range(1);
    const int log = dup(STDERR_FILENO), nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    std::string lines;
    for (std::int64_t i = 0; i < rules; i++)
        lines += host_mac(i % (2 * hosts)) + format("|%d|", static_cast<int>(i % 8)) +
                 time_of_day(i * 7, i * 11) + "|" + time_of_day(i * 13, i * 17) + "|1|nocid|\n";
    access::rule_set all;
    all.times.load(lines);
    std::vector<access::listed_host> listed;
    for (std::int64_t i = 0; i < hosts; i++)
        listed.push_back({access::host_id(host_mac(i)), 0, 0, 0});
    const access::rule_instant at = access::rule_instant_at(1795262066, true);
    for (auto _ : state)
        benchmark::DoNotOptimize(access::wanted(all, listed, at));
    dup2(log, STDERR_FILENO);
    close(log);
    close(nowhere);
    state.counters["each"] = benchmark::Counter(static_cast<double>((rules + hosts) * state.iterations()),
                                                benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// From a task's posting to its run, with the loop's turn in between; per task.
void task_hand_off(benchmark::State &state) {
    uloop_init();
    {
        task_queue tasks;
        std::int64_t left;
        for (auto _ : state) {
            left = state.range(0);
            for (std::int64_t i = 0; i < state.range(0); i++)
                tasks.post([&left] {
                    if (--left == 0)
                        uloop_end();
                });
            uloop_run_timeout(-1);
        }
    }
    uloop_done();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// A bus of the benchmark's own with one provider on it, which answers every call with the call's arguments.
class bench_bus {
  public:
    bench_bus() {
        char name[] = "/tmp/arvok-bench-XXXXXX";
        if (!mkdtemp(name))
            std::exit(1);
        dir_ = name;
        socket_ = dir_ + "/ubus.sock";
        const char *bin = std::getenv("ARVOK_BIN");
        const std::string daemon = std::string(bin ? bin : ARVOK_BIN_DEFAULT) + "/ubusd";
        daemon_ = fork();
        if (daemon_ == 0) {
            execl(daemon.c_str(), "ubusd", "-s", socket_.c_str(), nullptr);
            _exit(127);
        }
        provider_ = fork();
        if (provider_ == 0)
            _exit(provide());
    }
    ~bench_bus() {
        for (pid_t child : {provider_, daemon_}) {
            kill(child, SIGTERM);
            waitpid(child, nullptr, 0);
        }
        std::filesystem::remove_all(dir_);
    }
    // Both come up in their own time.
    ubus_context *connect() const {
        for (int tries = 0; tries < 1000; tries++, usleep(1000))
            if (ubus_context *ctx = ubus_connect(socket_.c_str()))
                return ctx;
        std::exit(1);
    }
    static std::uint32_t provider(ubus_context *ctx) {
        std::uint32_t id = 0;
        for (int tries = 0; tries < 1000; tries++, usleep(1000))
            if (ubus_lookup_id(ctx, "bench", &id) == 0)
                return id;
        std::exit(1);
    }

  private:
    int provide() const {
        uloop_init();
        ubus_context *ctx = connect();
        ubus_add_uloop(ctx);
        static ubus_method method{};
        method.name = "echo";
        method.handler = [](ubus_context *c, ubus_object *, ubus_request_data *req, const char *,
                            blob_attr *msg) { return ubus_send_reply(c, req, msg); };
        static ubus_object_type type{};
        type.name = "bench";
        type.methods = &method;
        type.n_methods = 1;
        static ubus_object object{};
        object.name = "bench";
        object.type = &type;
        object.methods = &method;
        object.n_methods = 1;
        ubus_add_object(ctx, &object);
        uloop_run();
        ubus_free(ctx);
        uloop_done();
        return 0;
    }
    std::string dir_, socket_;
    pid_t daemon_ = -1, provider_ = -1;
};

void bus_call(benchmark::State &state) {
    const bench_bus bus;
    ubus_context *ctx = bus.connect();
    const std::uint32_t id = bench_bus::provider(ctx);
    struct blob_buf buf {};
    blob_buf_init(&buf, 0);
    blobmsg_add_string(&buf, "text", std::string(static_cast<std::size_t>(state.range(0)), 'x').c_str());
    for (auto _ : state)
        if (ubus_invoke(
                ctx, id, "echo", buf.head, [](ubus_request *, int, blob_attr *) {}, nullptr, 1000) != 0)
            state.SkipWithError("call failed");
    blob_buf_free(&buf);
    ubus_free(ctx);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(schedule_evaluation)
    ->ArgNames({"rules", "hosts"})
    ->ArgsProduct({{10, 100, 1000, 10000}, {10, 100, 1000}})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(frame_encoding)->ArgNames({"size", "encrypted"})->ArgsProduct({{128, 1024, 16384}, {0, 1}});
BENCHMARK(frame_decoding)->ArgNames({"size", "encrypted"})->ArgsProduct({{128, 1024, 16384}, {0, 1}});
BENCHMARK(task_hand_off)->ArgName("tasks")->Arg(1)->Arg(100);
BENCHMARK(bus_call)->ArgName("size")->Arg(16)->Arg(4096)->UseRealTime();

}  // namespace
}  // namespace arvok::bench

BENCHMARK_MAIN();
