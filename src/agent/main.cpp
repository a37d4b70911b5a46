// The agent's life: options, then everything else.

#include <fcntl.h>
#include <unistd.h>

#include "agent/agent.h"
#include "base/held_signals.h"
#include "base/memory.h"

namespace {

// A socket must never get a standard descriptor's number: what is written to standard error would go to a
// peer.
void keep_standard_descriptors() {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

}  // namespace

int main(int argc, char **argv) {
    arvok::held_signals signals;
    arvok::return_large_memory();
    keep_standard_descriptors();
    arvok::options chosen = arvok::parse_options(argc, argv);
    arvok::apply_test_mode(chosen, arvok::test_mode_marker);
    return arvok::agent(signals, std::move(chosen)).run();
}
