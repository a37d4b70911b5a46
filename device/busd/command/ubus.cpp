// The `ubus` command: what is on a bus, from a shell.
#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "../protocol.h"
#include "../socket_path.h"
#include "command.h"

namespace {

using namespace arvok;

constexpr char USAGE[] =
    "Usage: ubus [-s SOCKET] [-t SECONDS] [-S] [-v] COMMAND [ARGUMENT...]\n"
    "\n"
    "  -s SOCKET   the socket of the bus (default: $UBUS_SOCKET, else " ARVOK_BUS_SOCKET
    ")\n"
    "  -t SECONDS  how long to wait (default: 30; subscribe and listen: until stopped)\n"
    "  -S          one line per answer\n"
    "  -v          more detail\n"
    "  -h          show this help\n"
    "\n"
    "  list [-v] [PATH]           the objects on the bus, verbosely with their methods\n"
    "  call PATH METHOD [JSON]    call a method and print its answer\n"
    "  subscribe PATH...          print the notifications of objects\n"
    "  listen [PATTERN...]        print events\n"
    "  send TYPE [JSON]           send an event\n"
    "  wait_for OBJECT...         wait until all of these are on the bus\n";

constexpr size_t ANY_NUMBER = SIZE_MAX;

struct Row {
    const char *name;
    int (*command)(Session &session, Arguments arguments);
    size_t fewest_arguments;
    size_t most_arguments;
};

constexpr Row ROWS[] = {
    {"list", list_objects, 0, 2},
    {"call", call_method, 2, 3},
    {"subscribe", subscribe, 1, ANY_NUMBER},
    {"listen", listen, 0, ANY_NUMBER},
    {"send", send_event, 1, 2},
    {"wait_for", wait_for_objects, 1, ANY_NUMBER},
};

struct FreeBus {
    void operator()(ubus_context *bus) const { ubus_free(bus); }
};

int wrong_usage() {
    std::fputs(USAGE, stderr);
    return 1;
}

// Seconds whose milliseconds are an int.
bool read_seconds(const char *text, int &seconds) {
    char *end = nullptr;

    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < 0 || value > INT_MAX / 1000)
        return false;
    seconds = static_cast<int>(value);
    return true;
}

int run(Session &session, const char *socket, const Row &row, Arguments arguments) {
    const std::unique_ptr<ubus_context, FreeBus> bus(ubus_connect(socket));

    if (!bus) {
        std::fputs("Failed to connect to ubus\n", stderr);
        return CANNOT_CONNECT;
    }
    session.bus = bus.get();
    const int status = row.command(session, arguments);
    if (status != UBUS_STATUS_OK)
        std::fprintf(stderr, "Command failed: %s\n", status_text(status));
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    Session session;
    const char *socket = std::getenv("UBUS_SOCKET");

    for (int option; (option = getopt(argc, argv, "+s:t:Svh")) != -1;) {
        switch (option) {
            case 's':
                socket = optarg;
                break;
            case 't':
                if (!read_seconds(optarg, session.timeout_s)) {
                    std::fprintf(stderr, "ubus: '%s' is not a number of seconds\n", optarg);
                    return 1;
                }
                session.limited = true;
                break;
            case 'S':
                session.simple = true;
                break;
            case 'v':
                session.verbose = true;
                break;
            case 'h':
                std::fputs(USAGE, stdout);
                return 0;
            default:
                return wrong_usage();
        }
    }
    if (optind >= argc)
        return wrong_usage();
    const auto row = std::find_if(std::begin(ROWS), std::end(ROWS), [argv](const Row &known) {
        return std::strcmp(known.name, argv[optind]) == 0;
    });
    if (row == std::end(ROWS)) {
        std::fprintf(stderr, "ubus: unknown command '%s'\n", argv[optind]);
        return wrong_usage();
    }
    const Arguments arguments(argv + optind + 1, static_cast<size_t>(argc - optind - 1));
    if (arguments.size() < row->fewest_arguments || arguments.size() > row->most_arguments)
        return wrong_usage();
    if (uloop_init() < 0) {
        std::perror("ubus: cannot start the event loop");
        return 1;
    }
    const int result = run(session, socket && *socket ? socket : ARVOK_BUS_SOCKET, *row, arguments);
    uloop_done();
    return result;
}
