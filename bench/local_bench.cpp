// What a client of the local server sees: the agent's answers beside the floor under them, in one run. Runs
// in a home without peers and agent; it is the clients, and starts the agent itself.
//
//   local/alone     GET_SN_INFO round trips of the only client
//   local/crowd     the same among 1,000 clients that have begun a frame and say no more
//   echo/...        the same frames, answered by a bare loop-and-stream server on the agent's host
//
// Figures only; nothing is asserted.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/base64.h"
#include "base/crypto.h"
#include "home.h"

namespace arvok::bench {
namespace {

constexpr char local_port[] = "17998";
constexpr std::size_t crowd_size = 1000;
constexpr std::size_t header_size = sizeof(std::uint32_t);

std::string question() {
    const std::string command = base64_encode(R"({"CmdType":"GET_SN_INFO","SequenceId":"1"})");
    const std::string body = R"({"RPCMethod":"Post1","ID":1,"Parameter":")" + command + "\"}";
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(body.size()));
    return std::string(reinterpret_cast<const char *>(&length), header_size) + body;
}

std::string round_trip(connection &client, const std::string &request) {
    client.write(request);
    return client.read_frame(header_size);
}

void local(benchmark::State &state, std::size_t others) {
    const std::string request = question();
    std::vector<connection> crowd;
    while (crowd.size() < others) {
        crowd.push_back(connect_to_agent(local_port));
        crowd.back().write(std::string_view(request).substr(0, header_size + 1));
    }
    connection client = connect_to_agent(local_port);
    round_trip(client, request);
    for (auto _ : state)
        benchmark::DoNotOptimize(round_trip(client, request));
}

void echo(benchmark::State &state) {
    const std::string request = question();
    connection client = connect_to_agent(local_port);
    bare_echo(state, request.size(), round_trip(client, request).size());
}

// Both ends of a crowd need a descriptor for each of it; programs that are started inherit the limit.
void allow_crowd() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void measure() {
    allow_crowd();
    const program agent({"lab-ap", "arvokclt"}, output::nowhere);
    add_round_trips("local/alone", local, 0);
    add_round_trips("local/crowd", local, crowd_size);
    add_round_trips("echo/alone", echo);
    run_benchmarks();
}

constexpr char notes[] =
    "local/X is what a client waits for the answer to GET_SN_INFO; the agent's work is reading and building "
    "JSON, base64\n"
    "and two log lines.\n\n";

}  // namespace
}  // namespace arvok::bench

int main(int argc, char **argv) {
    return arvok::bench::measure_in_home(argc, argv, arvok::bench::measure, arvok::bench::notes);
}
