#pragma once
/// The machine as the agent meets it while it is fuzzed: no network, no other process, no second thread,
/// files in a folder of this run's own, random values that are known, and time that passes only when the
/// input says so. The linker puts these in the place of the C library's calls (fuzz/CMakeLists.txt lists
/// which), in the agent's code only.

#include <csetjmp>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::fuzz {

/// What encryption with the cloud platform's RSA key does to each byte.
constexpr unsigned char high_bit = 0x80;

/// Who is on the other side of a connection of the agent's. A byte sent to the listener knocks at the local
/// server's door, where a client then stands.
enum class side { gateway, cloud, listener, client, kernel };

struct far_end {
    int fd;
    side of;
};

/// A timer of the agent's that has not run out.
struct armed_timer {
    uloop_timeout *timer;
    std::int64_t due_ms;  ///< uptime
};

struct held_thread {
    void *(*run)(void *);
    void *argument;
};

struct machine_state {
    std::time_t now;
    long uptime;
    bool link_forbidden;               ///< the gateway link is switched off
    bool threads_held;                 ///< threads do nothing before the agent's end
    std::vector<held_thread> threads;  ///< the threads that wait
    std::vector<far_end> far_ends;     ///< newest last
    std::vector<armed_timer> timers;   ///< may hold some that have run out
    uloop_timeout *armed_last;
    std::jmp_buf *exit_to;  ///< where exit() leads; null: out of the process
    bool dirty;             ///< files may exist
};
extern machine_state machine;

/// Makes the folder, which goes with the process. Once.
void machine_init();

/// Lets held threads end; then everything is as it is when an input begins: no connections, no files,
/// 2026-11-21 08:00 UTC, a day after the boot.
void machine_reset();

/// The soonest first.
const std::vector<armed_timer> &armed_timers();

/// Lets time pass.
void advance(long seconds);
inline std::time_t clock_of_machine() {
    return machine.now;
}

/// A file of the agent by the last part of its path, wherever the agent believes it to be.
void put_file(const std::string &name, std::string_view content);
const std::string &file_folder();

/// Our end of the newest connection with that side, -1 for none.
int newest_far_end(side of);

}  // namespace arvok::fuzz
