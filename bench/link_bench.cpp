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
#include <vector>

#include "arvok_client/frame.h"
#include "common/crypto.h"
#include "common/json.h"
#include "common/text.h"
#include "home.h"

namespace arvok {
namespace {

constexpr char gateway_address[] = "192.168.1.1";
constexpr char link_port[] = "32768";
constexpr int starts = 40;

// --- the gateway's end of the link ---

class gateway {
  public:
    gateway()
        : listener_(gateway_address, link_port),
          agent_({"lab-ap", "arvokclt", "-g", gateway_address}, output::nowhere),
          link_(listener_.accept()) {
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

    std::vector<char> encode(const std::string &text) const {
        return frame_encode(text.c_str(), static_cast<int>(text.size()), key_.get());
    }
    // One round trip; keepalives that come in between are answered. Returns the answer's frame.
    std::vector<char> round_trip(const std::vector<char> &request) {
        link_.write(request.data(), request.size());
        for (;;) {
            std::vector<char> frame = read_frame();
            // Only keepalives are as short as that.
            if (frame.size() > 100 || !answer_keepalive(frame))
                return frame;
        }
    }

  private:
    std::vector<char> read_frame() { return link_.read_frame(frame_header_size, frame_body_length); }
    void send(const std::string &text) {
        const std::vector<char> frame = encode(text);
        link_.write(frame.data(), frame.size());
    }
    json_ptr decode(std::vector<char> frame) const {
        frame.push_back('\0');
        const int len = static_cast<int>(frame.size()) - frame_header_size - 1;
        return json_parse(frame_body_text(frame.data() + frame_header_size, len, key_.get()).get());
    }
    json_ptr receive() { return decode(read_frame()); }
    bool answer_keepalive(const std::vector<char> &frame) {
        const json_ptr message = decode(frame);
        if (_strcmp(json_text(message.get(), "type"), "keepalive") != 0)
            return false;
        send(R"({"type":"ack","sequence":)" + std::to_string(_get_json_int(message.get(), "sequence", -1)) +
             "}");
        return true;
    }

    listener listener_;
    program agent_;
    connection link_;
    bytes_ptr key_;
};

// --- the benchmarks ---

// The agent that is measured; a start makes another.
using current_link = std::optional<gateway>;

gateway &need(current_link &current) {
    return current ? *current : current.emplace();
}

void status(benchmark::State &state, current_link &current, const std::string &text) {
    gateway &link = need(current);
    const std::vector<char> request = link.encode(text);
    for (auto _ : state)
        benchmark::DoNotOptimize(link.round_trip(request));
}

void echo(benchmark::State &state, current_link &current, const status_request &asked) {
    gateway &link = need(current);
    const std::vector<char> request = link.encode(asked.text);
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
}  // namespace arvok

int main(int argc, char **argv) {
    return arvok::measure_in_home(argc, argv, arvok::measure, "");
}
