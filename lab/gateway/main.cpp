// lab-gateway: the home gateway that an access point hangs off, as a program on a desk.

#include <getopt.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

#include "bus_object.h"
#include "faults.h"
#include "gateway.h"
#include "program.h"
#include "traffic.h"

namespace arvok::lab {
namespace {

constexpr const char *usage =
    "usage: lab-gateway [-a ADDRESS] [-p PORT] [-s BUS_SOCKET] [--mac MAC]\n"
    "\n"
    "The home gateway: serves the gateway link and appears on the bus as lab.gateway.\n"
    "\n"
    "  -a, --address ADDRESS  IPv4 address to listen on (default 0.0.0.0)\n"
    "  -p, --port PORT        TCP port to listen on (default 32768; 0: any free one)\n"
    "  -s, --socket SOCKET    the bus (default $UBUS_SOCKET, else the system's)\n"
    "      --mac MAC          the gateway's MAC, 12 hexadecimal digits, ':' or '-' between pairs allowed\n"
    "                         (default: that of the interface a connection arrives on)\n"
    "  -h, --help             this text\n";

struct Options {
    GatewaySettings gateway;
    const char *bus = std::getenv("UBUS_SOCKET");
};

enum class Parsed { run, help, wrong };

// 12 upper-case digits, or nothing.
std::optional<std::string> normal_mac(const char *text) {
    std::string mac;
    for (const char *at = text; *at; at++) {
        const auto digit = static_cast<unsigned char>(*at);
        if (std::isxdigit(digit))
            mac.push_back(static_cast<char>(std::toupper(digit)));
        else if ((*at != ':' && *at != '-') || mac.size() % 2 != 0)
            return std::nullopt;
    }
    return mac.size() == 12 ? std::optional(mac) : std::nullopt;
}

Parsed parse(int argc, char **argv, Options &options) {
    static const option names[] = {
        {"address", required_argument, nullptr, 'a'}, {"port", required_argument, nullptr, 'p'},
        {"socket", required_argument, nullptr, 's'},  {"mac", required_argument, nullptr, 'm'},
        {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
    };
    const auto wrong = [](const char *what, const char *value) {
        std::fprintf(stderr, "lab-gateway: %s: %s\n", what, value);
        return Parsed::wrong;
    };
    for (int letter; (letter = getopt_long(argc, argv, "a:p:s:h", names, nullptr)) != -1;) {
        switch (letter) {
            case 'a':
                if (!is_address(optarg))
                    return wrong("not an IPv4 address", optarg);
                options.gateway.address = optarg;
                break;
            case 'p':
                if (!is_port(optarg))
                    return wrong("not a port", optarg);
                options.gateway.port = optarg;
                break;
            case 's':
                options.bus = optarg;
                break;
            case 'm':
                if (const auto mac = normal_mac(optarg))
                    options.gateway.mac = *mac;
                else
                    return wrong("not a MAC", optarg);
                break;
            case 'h':
                return Parsed::help;
            default:
                return Parsed::wrong;
        }
    }
    return optind < argc ? wrong("unexpected argument", argv[optind]) : Parsed::run;
}

int serve(const Options &options, ubus_context *bus, const std::function<int()> &run) {
    // Declared in the order of dependence, so that everything ends before what it uses.
    Traffic traffic;
    Faults faults(gateway_faults);
    Gateway gateway(options.gateway, traffic, faults);
    BusObject object(bus, gateway, traffic, faults);
    if (!gateway.update_listening()) {
        std::fprintf(stderr, "lab-gateway: cannot listen on %s:%s: %s\n", options.gateway.address.c_str(),
                     options.gateway.port.c_str(), std::strerror(errno));
        return 1;
    }
    if (const int status = object.publish(); status != UBUS_STATUS_OK) {
        std::fprintf(stderr, "lab-gateway: cannot publish lab.gateway: %s\n", ubus_strerror(status));
        return 1;
    }
    return run();
}

}  // namespace
}  // namespace arvok::lab

int main(int argc, char **argv) {
    using namespace arvok::lab;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    switch (parse(argc, argv, options)) {
        case Parsed::help:
            std::fputs(usage, stdout);
            return 0;
        case Parsed::wrong:
            std::fputs(usage, stderr);
            return 1;
        case Parsed::run:
            break;
    }
    return live_on_bus(
        "lab-gateway", options.bus,
        [&options](ubus_context *bus, const std::function<int()> &run) { return serve(options, bus, run); });
}
