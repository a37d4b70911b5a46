// What the cloud platform sees of the agent, beside the floors, in one run. Runs in a home without peers and
// agent; it is the platform, and starts the agent itself.
//
//   start/enrolment  from the start of the program to its first heartbeat, for a device without identity
//   start/resumption the same for a device that has its business servers and its identity
//   start/program    a start that only prints the version: what the home and the program loader take
//   start/platform   what the platform takes to decrypt and answer in an enrolment
//   status/...       SetPluginParams round trips of a connected agent, each with a status request in it
//   echo/...         the same frames, answered by a bare loop-and-stream server on the agent's host, which
//   makes as
//                    many platform calls
//   bus/...          a platform call, made directly on the bus
//
// Figures only; nothing is asserted.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cloud_peer.h"
#include "home.h"

namespace arvok::bench {
namespace {

constexpr int starts = 40;

using device = platform::device;
using seconds = platform::seconds;
using steady = platform::steady;

struct start_times {
    seconds all;       // from the start of the program to its heartbeat
    seconds platform;  // of these, decryption and answers of the platform
};

// The platform with the agent that it has started.
class bench_platform : public platform {
  public:
    // Starts the agent, in place of one that runs already, and answers it until it is connected. The old one
    // goes before its connection, so that it does not connect again.
    start_times start(device known_as) {
        agent_.reset();
        hang_up();
        const steady::time_point begin = steady::now();
        std::vector<const char *> command = {"lab-ap", "arvokclt"};
        if (known_as == device::unknown)
            command.insert(command.end(), {"-b", bootstrap_server});
        agent_.emplace(command, output::nowhere);
        const seconds own = enrol(known_as);
        return {steady::now() - begin, own};
    }
    // A connected agent, and a device that has its identity.
    void need_agent() {
        if (!connected())
            start(device::unknown);
    }

  private:
    std::optional<program> agent_;
};

// --- the benchmarks ---

void start(benchmark::State &state, bench_platform &cloud, device known_as, seconds start_times::*part) {
    cloud.need_agent();  // after which the device is known
    for (auto _ : state)
        state.SetIterationTime((cloud.start(known_as).*part).count());
}

void start_program(benchmark::State &state) {
    for (auto _ : state) {
        const steady::time_point begin = steady::now();
        program({"lab-ap", "arvokclt", "--version"}).join();
        state.SetIterationTime(seconds(steady::now() - begin).count());
    }
}

void status(benchmark::State &state, bench_platform &cloud, const std::string &text) {
    cloud.need_agent();
    const std::string request = cloud.wrapped(text);
    if (cloud.decode(cloud.round_trip(request), platform::cipher::aes)["Result"].integer() != 0)
        return state.SkipWithError("request failed");
    for (auto _ : state)
        benchmark::DoNotOptimize(cloud.round_trip(request));
}

void echo(benchmark::State &state, bench_platform &cloud, const status_request &asked) {
    cloud.need_agent();
    const std::string request = cloud.wrapped(asked.text);
    bare_echo(state, request.size(), cloud.round_trip(request).size(), asked.calls);
}

template <typename... Args>
void add_start(const std::string &name, Args &&...args) {
    benchmark::RegisterBenchmark(name.c_str(), std::forward<Args>(args)...)
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(starts);
}

void measure() {
    bench_platform cloud;
    using times = start_times;
    add_start("start/enrolment", start, std::ref(cloud), device::unknown, &times::all);
    add_start("start/resumption", start, std::ref(cloud), device::known, &times::all);
    add_start("start/program", start_program);
    add_start("start/platform", start, std::ref(cloud), device::unknown, &times::platform);
    for (const status_request &request : status_requests) {
        const std::string name = request.name;
        add_round_trips("status/" + name, status, std::ref(cloud), request.text);
        add_round_trips("echo/" + name, echo, std::ref(cloud), std::cref(request));
    }
    add_round_trips("bus/terminalnum", bus_call, "qzcapd.system", "terminalnum");
    run_benchmarks();
}

constexpr char notes[] =
    "start/enrolment and start/resumption end with the first heartbeat, which an agent in status 5 sends. "
    "They\n"
    "contain start/program and start/platform, and an enrolment also 10 ms of waiting between bootstrap and\n"
    "business server. Each round trip is a SetPluginParams request with a status request in it.\n\n";

}  // namespace
}  // namespace arvok::bench

int main(int argc, char **argv) {
    return arvok::bench::measure_in_home(argc, argv, arvok::bench::measure, arvok::bench::notes);
}
