#include <getopt.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

#include "../held_loop.h"
#include "device.h"
#include "emulator.h"
#include "state.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace {

using namespace arvok::qzcapd;

struct FreeContext {
    void operator()(ubus_context *ctx) const { ubus_free(ctx); }
};
using context_ptr = std::unique_ptr<ubus_context, FreeContext>;

/// Serves until the loop ends; returns the exit status.
int run(json_ptr state, const char *socket, const std::string &root) {
    const context_ptr ctx(ubus_connect(socket));
    if (!ctx) {
        std::fprintf(stderr, "qzcapd: no bus at %s\n", socket != nullptr ? socket : "the default socket");
        return 1;
    }
    ctx->connection_lost = [](ubus_context *) { uloop_end(); };  // also after a hang-up
    ubus_add_uloop(ctx.get());
    Device device(ctx.get(), std::move(state), root);
    Emulator emulator(ctx.get(), device);
    int status = device.publish();
    if (status == 0) {
        status = emulator.publish();
    }
    if (status != 0) {
        std::fprintf(stderr, "qzcapd: cannot publish: %s\n", ubus_strerror(status));
        return 1;
    }
    std::puts("qzcapd: ready");
    std::fflush(stdout);
    arvok::HeldLoop::run();
    return 0;
}

/// A package may hold folders in folders, thousands deep, and walking down opens each of them.
void allow_many_files() {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

constexpr char usage[] =
    "usage: qzcapd [-f FILE] [-s SOCKET] [-r DIR]\n"
    "\n"
    "The emulated platform: holds the state of a device and puts the platform's objects on the bus.\n"
    "\n"
    "  -f, --state FILE     the state to start with (default: the home's)\n"
    "  -s, --socket SOCKET  the bus (default: $UBUS_SOCKET, else the bus library's)\n"
    "  -r, --root DIR       the device's file system: apps have their files below DIR/qzcap (default: /, "
    "where\n"
    "                       there must be a /qzcap already)\n"
    "  -h, --help           this text\n";

}  // namespace

int main(int argc, char **argv) {
    const arvok::HeldLoop loop;
    static const option long_options[] = {{"state", required_argument, nullptr, 'f'},
                                          {"socket", required_argument, nullptr, 's'},
                                          {"root", required_argument, nullptr, 'r'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    const char *path = QZCAPD_DEFAULT_STATE;
    const char *socket = std::getenv("UBUS_SOCKET");
    std::string root;
    for (int opt = 0; (opt = getopt_long(argc, argv, "f:s:r:h", long_options, nullptr)) != -1;) {
        if (opt == 'f') {
            path = optarg;
        } else if (opt == 's') {
            socket = optarg;
        } else if (opt == 'r') {
            root = optarg;
        } else {
            std::fputs(usage, opt == 'h' ? stdout : stderr);
            return opt == 'h' ? 0 : 1;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "qzcapd: unexpected argument %s\n%s", argv[optind], usage);
        return 1;
    }
    std::string error;
    json_ptr state = load_state(path, &error);
    if (!state) {
        std::fprintf(stderr, "qzcapd: %s: %s\n", path, error.c_str());
        return 1;
    }
    allow_many_files();
    uloop_init();
    const int status = run(std::move(state), socket, root);
    uloop_done();
    return status;
}
