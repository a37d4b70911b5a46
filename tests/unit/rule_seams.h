#pragma once
/// What the rules meet while they are tested in one process: a platform that refuses, a disk that fails, a
/// clock and timers in the test's hand.

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace arvok::access {

struct fake_host {
    std::string mac;
    int access = 2, up = 0, down = 0;
    bool operator==(const fake_host &) const = default;
};

struct fake_platform {
    std::vector<fake_host> hosts;
    std::map<unsigned, bool> guests{};  ///< whether the interface of that index is enabled
    int calls = 0;                      ///< so far
    int refused = -1;                   ///< this one is, counted from 0
    int silent_hosts = 0;               ///< so many of the first hosts' records are refused after a time-out
    int write_ms = 0;                   ///< what each write of another one's takes
    bool lists_hosts = true;
    std::vector<unsigned> written{};  ///< hosts whose records were to be, counted from 1
};
extern fake_platform device;

/// The system calls on files that the agent's code makes, from now on; all succeed unless it is said
/// otherwise.
struct fake_disk {
    int calls = 0;
    int failing = -1;       ///< this one fails, counted from 0
    int error = 0;          ///< with this number; 0: the process ends before it
    bool repeated = false;  ///< and so do all that follow
    std::string names{};
};
extern fake_disk disk;

extern std::time_t now;
/// Lets time pass, and the loop do what is due then.
void pass(int seconds);
void pass_ms(int milliseconds);
/// Seconds that have passed, also in the calls of a platform that does not answer.
int passed();
std::int64_t passed_ms();
/// What was logged since the last call.
std::string take_log();

}  // namespace arvok::access
