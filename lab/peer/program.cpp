#include "program.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "traffic.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::lab {
namespace {

struct BusRelease {
    void operator()(ubus_context *bus) const { ubus_free(bus); }
};

bool bus_lost = false;

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

int live_on_bus(const char *name, const char *socket,
                const std::function<int(ubus_context *, const std::function<int()> &)> &serve) {
    uloop_init();
    int status = 1;
    if (const std::unique_ptr<ubus_context, BusRelease> bus(ubus_connect(socket)); bus) {
        bus->connection_lost = [](ubus_context *) {
            log_line("the bus is gone");
            bus_lost = true;
            uloop_end();
        };
        ubus_add_uloop(bus.get());
        status = serve(bus.get(), [] {
            uloop_run_timeout(-1);
            log_line("stopped");
            return bus_lost ? 1 : 0;
        });
    } else {
        std::fprintf(stderr, "%s: cannot connect to the bus%s%s\n", name, socket ? " at " : "",
                     socket ? socket : "");
    }
    uloop_done();
    return status;
}

}  // namespace arvok::lab
