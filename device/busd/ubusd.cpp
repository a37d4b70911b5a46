// The bus daemon.
#include <getopt.h>

#include <cstdio>
#include <string>

#include "../held_loop.h"
#include "server.h"
#include "socket_path.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace {

constexpr char USAGE[] =
    "Usage: ubusd [-s SOCKET]\n"
    "\n"
    "Serves the bus on a Unix socket until SIGTERM or SIGINT.\n"
    "\n"
    "  -s SOCKET  the socket (default: " ARVOK_BUS_SOCKET
    ")\n"
    "  -h         show this help\n";

}  // namespace

int main(int argc, char **argv) {
    const arvok::HeldLoop loop;
    std::string path = ARVOK_BUS_SOCKET;
    std::string error;

    for (int option; (option = getopt(argc, argv, "s:h")) != -1;) {
        switch (option) {
            case 's':
                path = optarg;
                break;
            case 'h':
                std::fputs(USAGE, stdout);
                return 0;
            default:
                std::fputs(USAGE, stderr);
                return 1;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "ubusd: unexpected argument '%s'\n%s", argv[optind], USAGE);
        return 1;
    }
    if (uloop_init() < 0) {
        std::perror("ubusd: cannot start the event loop");
        return 1;
    }
    int result = 0;
    {
        arvok::Server server;
        if (server.listen(path, error)) {
            arvok::HeldLoop::run();
        } else {
            std::fprintf(stderr, "ubusd: %s\n", error.c_str());
            result = 1;
        }
    }
    uloop_done();
    return result;
}
