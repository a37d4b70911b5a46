#include "program.h"

#include <arpa/inet.h>
#include <sys/resource.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "../../device/held_loop.h"
#include "traffic.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::lab {
namespace {

bool bus_lost = false;

// A peer of many devices has as many connections.
void allow_many_descriptors() {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

}  // namespace

bool is_port(const char *text) {
    char *end = nullptr;
    errno = 0;
    const unsigned long port = std::strtoul(text, &end, 10);
    return std::isdigit(static_cast<unsigned char>(*text)) && !*end && errno == 0 && port <= 65535;
}

bool is_address(const char *text) {
    in_addr address{};
    return inet_pton(AF_INET, text, &address) == 1;
}

Parsed Program::wrong(const char *what, const char *value) const {
    std::fprintf(stderr, "%s: %s: %s\n", name, what, value);
    return Parsed::wrong;
}

int Program::run(Parsed parsed, const char *socket, const std::function<int(ubus_context *)> &serve) const {
    if (parsed != Parsed::run) {
        std::fputs(usage, parsed == Parsed::help ? stdout : stderr);
        return parsed == Parsed::help ? 0 : 1;
    }
    const HeldLoop loop;
    allow_many_descriptors();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    uloop_init();
    int status = 1;
    if (const std::unique_ptr<ubus_context, Releaser<ubus_free>> bus(ubus_connect(socket)); bus) {
        bus->connection_lost = [](ubus_context *) {
            log_line("the bus is gone");
            bus_lost = true;
            uloop_end();
        };
        ubus_add_uloop(bus.get());
        status = serve(bus.get());
    } else {
        std::fprintf(stderr, "%s: cannot connect to the bus%s%s\n", name, socket ? " at " : "",
                     socket ? socket : "");
    }
    uloop_done();
    return status;
}

int Program::live(PeerBus &object) const {
    if (const int status = object.publish(); status != UBUS_STATUS_OK) {
        std::fprintf(stderr, "%s: cannot publish %s: %s\n", name, object.name(), ubus_strerror(status));
        return 1;
    }
    HeldLoop::run();
    log_line("stopped");
    return bus_lost ? 1 : 0;
}

int Program::cannot_listen(const std::string &server) const {
    std::fprintf(stderr, "%s: cannot listen on %s: %s\n", name, server.c_str(), std::strerror(errno));
    return 1;
}

}  // namespace arvok::lab
