// What a status request costs through the encrypted link, from the gateway's side: the agent's answers beside
// the floor under them, in one run. Runs in a home without gateway and agent; it is the gateway, and starts
// the agent itself.
//
//   status/...      get_status round trips against the agent
//   start/registration  from the start of the program to the registration
//   echo/...        the same frames, answered by a bare loop-and-stream server on the agent's host, which
//   makes as
//                   many platform calls
//   bus/...         a platform call, made directly on the bus
//
// Figures only; nothing is asserted.

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "home.h"
#include "link_peer.h"

namespace arvok::bench {
namespace {

constexpr int starts = 40;

// The gateway with the agent that it has started.
class linked_gateway : public gateway {
  public:
    linked_gateway() : agent_({"lab-ap", "arvokclt", "-g", gateway_address}, output::nowhere) {
        await_registration();
    }

  private:
    program agent_;
};

// --- the benchmarks ---

// The agent that is measured; a start makes another.
using current_link = std::optional<linked_gateway>;

gateway &need(current_link &current) {
    return current ? *current : current.emplace();
}

void status(benchmark::State &state, current_link &current, const std::string &text) {
    gateway &link = need(current);
    const std::string request = link.encode(text);
    for (auto _ : state)
        benchmark::DoNotOptimize(link.round_trip(request));
}

void echo(benchmark::State &state, current_link &current, const status_request &asked) {
    gateway &link = need(current);
    const std::string request = link.encode(asked.text);
    bare_echo(state, request.size(), link.round_trip(request).size(), asked.calls);
}

void start(benchmark::State &state, current_link &current) {
    for (auto _ : state) {
        current.reset();
        const auto begin = std::chrono::steady_clock::now();
        current.emplace();
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    }
}

void measure() {
    current_link link;
    benchmark::RegisterBenchmark("start/registration", start, std::ref(link))
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(starts);
    for (const status_request &request : status_requests) {
        const std::string name = request.name;
        add_round_trips("status/" + name, status, std::ref(link), request.text);
        add_round_trips("echo/" + name, echo, std::ref(link), std::cref(request));
    }
    add_round_trips("bus/terminalnum", bus_call, "qzcapd.system", "terminalnum");
    run_benchmarks();
}

}  // namespace
}  // namespace arvok::bench

int main(int argc, char **argv) {
    return arvok::bench::measure_in_home(argc, argv, arvok::bench::measure, "");
}
