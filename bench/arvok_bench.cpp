// What the agent's building blocks cost: frames by message size, the hand-off to the loop thread, the
// evaluation of schedules, one bus call. Figures only; nothing is asserted.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "arvok_client/frame.h"
#include "common/json.h"
#include "common/text.h"
#include "context.h"
#include "extcc/rules.h"
#include "extcc/schedule.h"
#include "utask/utask.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

namespace arvok {
namespace {

const auto *key = reinterpret_cast<const unsigned char *>("0123456789abcdef");

// A message of `size` characters: an array of small objects, as status answers are.
std::string message(std::size_t size) {
    const std::string item = R"({"mac":"02AABBCCDD01","band":"5G","rssi":"-51"},)";
    std::string text = R"({"type":"status","sequence":7,"mac":"021122334455","list":[)";
    while (text.size() + item.size() + 8 < size)
        text += item;
    if (text.back() == ',')
        text.pop_back();
    text += R"(],"p":")";
    text.append(size - std::min(size, text.size() + 2), 'x');
    return text + "\"}";
}

std::string host_mac(std::int64_t number) {
    char mac[16];
    std::snprintf(mac, sizeof mac, "02C0FF%06X", static_cast<unsigned>(number));
    return mac;
}

// What the agent does at a boundary, but for the platform's part: decides for each host with rules, finds the
// rules of each host on the LAN, and looks for the next boundary. The log goes nowhere.
void schedule_evaluation(benchmark::State &state) {
    const std::int64_t rules = state.range(0), hosts = state.range(1);
    clear_rules();
    std::vector<std::string> macs;
    for (std::int64_t i = 0; i < hosts; i++)
        macs.push_back(host_mac(i));
    for (std::int64_t i = 0; i < rules; i++) {
        char start[8], end[8];
        std::snprintf(start, sizeof start, "%02d:%02d", static_cast<int>(i * 7 % 24),
                      static_cast<int>(i * 11 % 60));
        std::snprintf(end, sizeof end, "%02d:%02d", static_cast<int>(i * 13 % 24),
                      static_cast<int>(i * 17 % 60));
        _add_mac_to_list(host_mac(i % (2 * hosts)).c_str(), start, end, 1, static_cast<int>(i % 8));
    }
    const rule_instant at = rule_instant_at(1795262066, true);
    const int log = dup(STDERR_FILENO), nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    for (auto _ : state) {
        for (timer_host &host : g_ctx.extcc.timer_hosts)
            host.action = _now_in_range(host, at) ? access_scheduled : access_unrestricted;
        for (const std::string &mac : macs)
            benchmark::DoNotOptimize(_find_timer_host(mac.c_str()));
        benchmark::DoNotOptimize(_get_next_action(g_ctx.extcc.timer_hosts, at));
    }
    dup2(log, STDERR_FILENO);
    close(log);
    close(nowhere);
    clear_rules();
    state.counters["each"] = benchmark::Counter(static_cast<double>((rules + hosts) * state.iterations()),
                                                benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void frame_encoding(benchmark::State &state) {
    const json_ptr root = json_parse(message(static_cast<std::size_t>(state.range(0))).c_str());
    const bool encrypted = state.range(1) != 0;
    for (auto _ : state) {
        const text_ptr text = json_print(root.get());
        benchmark::DoNotOptimize(frame_encode(text.get(), _strlen(text.get()), encrypted ? key : nullptr));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void frame_decoding(benchmark::State &state) {
    const std::string text = message(static_cast<std::size_t>(state.range(0)));
    const unsigned char *used_key = state.range(1) != 0 ? key : nullptr;
    std::vector<char> frame = frame_encode(text.c_str(), static_cast<int>(text.size()), used_key);
    frame.push_back('\0');
    for (auto _ : state) {
        const int len = frame_body_length(frame.data());
        const text_ptr plain = frame_body_text(frame.data() + frame_header_size, len, used_key);
        benchmark::DoNotOptimize(json_parse(plain.get()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// From utask_set to the function's run, with the loop's turn in between; per task.
void task_hand_off(benchmark::State &state) {
    static long left;
    uloop_init();
    utask_init();
    for (auto _ : state) {
        left = state.range(0);
        for (long i = 0; i < state.range(0); i++)
            utask_set(nullptr, [](void *) {
                if (--left == 0)
                    uloop_end();
            });
        uloop_run_timeout(-1);
    }
    utask_done();
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
}  // namespace arvok

BENCHMARK_MAIN();
