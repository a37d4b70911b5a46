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
#include <utility>
#include <vector>

#include "cloud_client/frame.h"
#include "common/json.h"
#include "common/text.h"
#include "development_key.h"
#include "home.h"
#include "lab/cloud/crypto.h"
#include "lab/cloud/frame.h"

namespace arvok {
namespace {

constexpr char bootstrap_address[] = "100.64.0.1";
constexpr char bootstrap_server[] = "100.64.0.1:8088";
constexpr char business_address[] = "100.64.0.2";
constexpr char cloud_port[] = "8088";
constexpr char server_key[] = "0123456789abcdef";

constexpr int starts = 40;

using steady = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

// How a message is encrypted.
enum class cipher { plain, rsa, aes };

// What the platform knows of the device.
enum class device { unknown, known };

// --- the platform's end of the connection ---

class platform {
  public:
    struct start_times {
        seconds all;       // from the start of the program to its heartbeat
        seconds platform;  // of these, decryption and answers here
    };

    // Starts the agent, in place of one that runs already, and answers it until it is connected.
    start_times start(device known_as) {
        stop();
        own_time_ = {};
        const steady::time_point begin = steady::now();
        std::vector<const char *> command = {"lab-ap", "arvokclt"};
        if (known_as == device::unknown)
            command.insert(command.end(), {"-b", bootstrap_server});  // which makes it forget its identity
        agent_.emplace(command, output::nowhere);
        if (known_as == device::unknown)
            bootstrap();
        link_.emplace(business_.accept());
        challenge();
        if (known_as == device::unknown) {
            exchange(*link_, "Activate", cipher::rsa, [](json_object &ack) {
                ack.text("DevID", "BENCH-1").text("DevToken", "0123456789abcdef0123456789abcdef");
            });
            challenge();
        }
        exchange(*link_, "Connect", cipher::rsa, [](json_object &ack) { ack.text("SKey", server_key); });
        const std::vector<char> heartbeat = read_frame(*link_);
        const seconds all = steady::now() - begin;
        heartbeat_size_ = heartbeat.size();
        if (!answer_heartbeat(heartbeat))
            unexpected("Heartbeat");
        return {all, own_time_};
    }
    // The agent goes first, so that it does not connect again.
    void stop() {
        agent_.reset();
        link_.reset();
    }

    // A connected agent, and a device that has its identity.
    void need_agent() {
        if (!link_)
            start(device::unknown);
    }
    // One round trip; heartbeats that come in between are answered. Returns the answer's frame.
    std::vector<char> round_trip(const std::string &request) {
        link_->write(request.data(), request.size());
        for (;;) {
            std::vector<char> frame = read_frame(*link_);
            if (frame.size() != heartbeat_size_ || !answer_heartbeat(frame))
                return frame;
        }
    }
    std::string encode(const cJSON *message, cipher how) const {
        const char *key = how == cipher::rsa ? client_key_.c_str() : server_key;
        std::string text = json_print(message).get();
        if (how != cipher::plain)
            text = lab::encrypt(key, text).value();
        return lab::make_frame(lab::make_body(text));
    }
    json_ptr decode(const std::vector<char> &frame, cipher how) const {
        std::optional<std::string> text =
            lab::open_body({frame.data() + cc_header_size, frame.size() - cc_header_size});
        if (text && how == cipher::rsa)
            text = key_.decrypt(*text);
        else if (text && how == cipher::aes)
            text = lab::decrypt(server_key, *text);
        return text ? json_parse(text->c_str()) : nullptr;
    }

  private:
    [[noreturn]] static void unexpected(const char *method) {
        fail(std::string("the agent sent something else than ") + method);
    }
    static std::vector<char> read_frame(connection &link) {
        return link.read_frame(cc_header_size, cc_frame_body_length);
    }

    void bootstrap() {
        connection link = bootstrap_.accept();
        exchange(link, "Boot", cipher::rsa, [](json_object &ack) {
            json_ptr servers(cJSON_CreateArray());
            json_append(servers.get(), json_object()
                                           .text("ServerAddr", business_address)
                                           .number("ServerPort", std::atoi(cloud_port))
                                           .take());
            ack.add("BizPlat", std::move(servers));
        });
    }
    void challenge() {
        exchange(*link_, "GetChallengeCode", cipher::plain,
                 [](json_object &ack) { ack.text("ChallengeCode", "0123456789abcdef0123456789abcdef"); });
    }
    // Takes one message of the enrolment and acknowledges it.
    template <typename Fill>
    void exchange(connection &link, const char *method, cipher how, Fill fill) {
        const std::vector<char> frame = read_frame(link);
        const steady::time_point begin = steady::now();
        const json_ptr message = decode(frame, how);
        if (_strcmp(json_text(message.get(), "RPCMethod"), method) != 0)
            unexpected(method);
        client_key_ = text_or_empty(json_text(message.get(), "CKey"));
        json_object ack;
        ack.text("Ack", method).number("Result", 0);
        fill(ack);
        const std::string answer = encode(ack.get(), how);
        own_time_ += steady::now() - begin;
        link.write(answer.data(), answer.size());
    }
    bool answer_heartbeat(const std::vector<char> &frame) {
        const json_ptr message = decode(frame, cipher::aes);
        if (_strcmp(json_text(message.get(), "RPCMethod"), "Heartbeat") != 0)
            return false;
        const json_object ack = std::move(json_object().text("Ack", "Heartbeat").number("Result", 0));
        const std::string answer = encode(ack.get(), cipher::aes);
        link_->write(answer.data(), answer.size());
        return true;
    }

    const lab::PlatformKey key_ = lab::PlatformKey::read(lab::development_key).value();
    listener bootstrap_{bootstrap_address, cloud_port};
    listener business_{business_address, cloud_port};
    std::optional<connection> link_;
    std::optional<program> agent_;
    std::string client_key_;
    std::size_t heartbeat_size_ = 0;
    seconds own_time_{};
};

// --- the benchmarks ---

void start(benchmark::State &state, platform &cloud, device known_as, seconds platform::start_times::*part) {
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

// A status request as the platform sends it.
std::string wrapped(const platform &cloud, const std::string &text) {
    const json_object request = std::move(json_object()
                                              .text("RPCMethod", "SetPluginParams")
                                              .text("ID", "1")
                                              .text("Plugin_Name", "ArvokAP")
                                              .text("Version", "1.0.7")
                                              .text("Parameter", lab::to_base64(text).c_str()));
    return cloud.encode(request.get(), cipher::aes);
}

void status(benchmark::State &state, platform &cloud, const std::string &text) {
    cloud.need_agent();
    const std::string request = wrapped(cloud, text);
    const json_ptr answer = cloud.decode(cloud.round_trip(request), cipher::aes);
    if (_get_json_int(answer.get(), "Result", -1) != 0)
        return state.SkipWithError("request failed");
    for (auto _ : state)
        benchmark::DoNotOptimize(cloud.round_trip(request));
}

void echo(benchmark::State &state, platform &cloud, const status_request &asked) {
    cloud.need_agent();
    const std::string request = wrapped(cloud, asked.text);
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
    platform cloud;
    using times = platform::start_times;
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
}  // namespace arvok

int main(int argc, char **argv) {
    return arvok::measure_in_home(argc, argv, arvok::measure, arvok::notes);
}
