#pragma once
/// The machine as the agent meets it while it is fuzzed: no network, no other process, no second thread,
/// files in a folder of this run's own, and time that passes only when the input says so. The linker puts
/// these in the place of the C library's calls (fuzz/CMakeLists.txt lists which), in the agent's code only.

#include <csetjmp>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace arvok::fuzz {

/// The other end of a connection of the agent's.
struct far_end {
    int fd;
    std::string port;  ///< that the agent connected to; "client" when it was connected to
};

struct machine_state {
    std::time_t now;
    long uptime;
    std::vector<far_end> far_ends;  ///< newest last
    std::jmp_buf *exit_to;          ///< where exit() leads; null: out of the process
    bool dirty;                     ///< files may exist
};
extern machine_state machine;

/// Makes the folder, which goes with the process. Once.
void machine_init();

/// As it is when an input begins: no connections, no files, 2026-11-21 08:00 UTC, a day after the boot.
void machine_reset();

/// Lets time pass.
void advance(long seconds);

/// A file of the agent by the last part of its path, wherever the agent believes it to be.
void put_file(const std::string &name, std::string_view content);
const std::string &file_folder();

/// The newest connection with that port, -1 for none.
int newest_far_end(std::string_view port);

}  // namespace arvok::fuzz
