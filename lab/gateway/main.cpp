// lab-gateway: the home gateway that an access point hangs off, as a program on a desk.

#include <getopt.h>

#include <cctype>
#include <cstdlib>
#include <optional>
#include <string>

#include "bus_object.h"
#include "faults.h"
#include "gateway.h"
#include "keylog.h"
#include "program.h"
#include "traffic.h"

namespace arvok::lab {
namespace {

constexpr Program program{
    "lab-gateway",
    "usage: lab-gateway [-a ADDRESS] [-p PORT] [-s BUS_SOCKET] [--mac MAC] [--keylog FILE]\n"
    "\n"
    "The home gateway: serves the gateway link and appears on the bus as lab.gateway.\n"
    "\n"
    "  -a, --address ADDRESS  IPv4 address to listen on (default 0.0.0.0)\n"
    "  -p, --port PORT        TCP port to listen on (default 32768; 0: any free one)\n"
    "  -s, --socket SOCKET    the bus (default $UBUS_SOCKET, else the system's)\n"
    "      --mac MAC          the gateway's MAC, 12 hexadecimal digits, ':' or '-' between pairs allowed\n"
    "                         (default: that of the interface a connection arrives on)\n"
    "      --keylog FILE      append each connection's key to FILE\n"
    "  -h, --help             this text\n"};

struct Options {
    GatewaySettings gateway;
    const char *bus = std::getenv("UBUS_SOCKET");
    KeyLog keys{"gateway"};
};

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
        {"address", required_argument, nullptr, 'a'},
        {"port", required_argument, nullptr, 'p'},
        {"socket", required_argument, nullptr, 's'},
        {"mac", required_argument, nullptr, 'm'},
        {"keylog", required_argument, nullptr, 'k'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int letter; (letter = getopt_long(argc, argv, "a:p:s:h", names, nullptr)) != -1;) {
        switch (letter) {
            case 'a':
                if (!is_address(optarg))
                    return program.wrong("not an IPv4 address", optarg);
                options.gateway.address = optarg;
                break;
            case 'p':
                if (!is_port(optarg))
                    return program.wrong("not a port", optarg);
                options.gateway.port = optarg;
                break;
            case 's':
                options.bus = optarg;
                break;
            case 'm':
                if (const auto mac = normal_mac(optarg))
                    options.gateway.mac = *mac;
                else
                    return program.wrong("not a MAC", optarg);
                break;
            case 'k':
                if (!options.keys.open(optarg))
                    return program.wrong("cannot write the key log", optarg);
                break;
            case 'h':
                return Parsed::help;
            default:
                return Parsed::wrong;
        }
    }
    return optind < argc ? program.wrong("unexpected argument", argv[optind]) : Parsed::run;
}

int serve(const Options &options, ubus_context *bus) {
    // Declared in the order of dependence, so that everything ends before what it uses.
    Traffic traffic;
    Faults faults(gateway_faults);
    Gateway gateway(options.gateway, traffic, faults, options.keys);
    BusObject object(bus, gateway, traffic, faults);
    if (!gateway.update_listening())
        return program.cannot_listen(options.gateway.address + ":" + options.gateway.port);
    return program.live(object);
}

}  // namespace
}  // namespace arvok::lab

int main(int argc, char **argv) {
    using namespace arvok::lab;
    Options options;
    const Parsed parsed = parse(argc, argv, options);
    return program.run(parsed, options.bus, [&options](ubus_context *bus) { return serve(options, bus); });
}
