#pragma once
/// What the benchmarks that run in a home share: programs on its hosts, blocking connections, the requests
/// that are measured, and the floors under them. Whatever fails ends the benchmark with a message.

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/descriptor.h"

namespace arvok::bench {

[[noreturn]] void fail(const std::string &what);

/// Where a program's output goes: into bench.log of the home, or nowhere, as that of a device's service does.
enum class output { log, nowhere };

/// A program. Its end comes with that of the object, which waits for it.
class program {
  public:
    explicit program(std::vector<const char *> args, output to = output::log);
    program(const program &) = delete;
    program &operator=(const program &) = delete;
    ~program();
    /// Waits for a program that ends by itself, well.
    void join();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

/// A TCP connection that it owns.
class connection {
  public:
    explicit connection(descriptor fd);
    /// Whether there is something to read, or the end. Acknowledges at once what has come, so that the other
    /// side sends what it holds back until then.
    bool readable() const;
    void read(char *to, std::size_t size);
    void write(std::string_view bytes);
    /// A whole frame, whose header ends with the length of its body: four bytes, big-endian.
    std::string read_frame(std::size_t header_size);

  private:
    descriptor fd_;
};

/// A connection to a port of the agent's host, where somebody is about to listen.
connection connect_to_agent(const char *port);

/// A port of this host that the agent connects to.
class listener {
  public:
    listener(const char *address, const char *port);
    connection accept();
    /// Whether a connection waits to be accepted.
    bool pending() const;

  private:
    descriptor fd_;
};

/// A status request: its name in the output, its JSON text, and how many platform calls the answer takes.
struct status_request {
    const char *name;
    std::string text;
    std::uint32_t calls;
};
extern const std::vector<status_request> status_requests;

/// The floors. Round trips of frames of these sizes against a bare server on the agent's host, which makes so
/// many platform calls before it answers; and a platform call by itself.
void bare_echo(benchmark::State &state, std::size_t request_size, std::size_t answer_size,
               std::uint32_t calls = 0);
void bus_call(benchmark::State &state, const char *object, const char *method);

/// Registers a benchmark of round trips.
template <typename... Args>
void add_round_trips(const std::string &name, Args &&...args) {
    benchmark::RegisterBenchmark(name.c_str(), std::forward<Args>(args)...)
        ->UseRealTime()
        ->MinTime(0.2)
        ->Repetitions(9);
}

/// Runs what is registered, in turns, and prints one line for each.
void run_benchmarks();

/// The program's main: puts the home on one core, then has `measure` register and run benchmarks, with the
/// server behind bare_echo running; `notes` go before what is said about all round trips.
int measure_in_home(int argc, char **argv, const std::function<void()> &measure, const char *notes);

}  // namespace arvok::bench
