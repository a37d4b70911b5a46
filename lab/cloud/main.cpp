// lab-cloud: the operator's cloud platform that an access point is enrolled with, as a program on a desk.

#include <getopt.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bus_object.h"
#include "cloud.h"
#include "development_key.h"
#include "faults.h"
#include "keylog.h"
#include "program.h"
#include "traffic.h"

namespace arvok::lab {
namespace {

constexpr Program program{
    "lab-cloud",
    "usage: lab-cloud [-s BUS_SOCKET] [--bss ADDRESS[:PORT]] [--business ADDRESS[:PORT],...] [--key FILE]\n"
    "                 [--keylog FILE]\n"
    "\n"
    "The operator's cloud platform: serves bootstrap and business servers and appears on the bus as "
    "lab.cloud.\n"
    "\n"
    "      --bss SERVER       IPv4 address and port of the bootstrap server (default 100.64.0.1:8088)\n"
    "      --business LIST    those of the business servers, separated by commas; or none\n"
    "                         (default 100.64.0.2 to 100.64.0.6). A port that is not given is 8088; 0 is "
    "any\n"
    "                         free one.\n"
    "      --key FILE         the platform's RSA private key, PEM (default: the one it was built with)\n"
    "      --keylog FILE      append each connection's keys, and what came under the RSA key, to FILE\n"
    "  -s, --socket SOCKET    the bus (default $UBUS_SOCKET, else the system's)\n"
    "  -h, --help             this text\n"};

struct Options {
    CloudSettings cloud;
    std::optional<PlatformKey> key = PlatformKey::read(development_key);
    const char *bus = std::getenv("UBUS_SOCKET");
    KeyLog keys{"cloud"};
};

std::optional<Endpoint> endpoint_of(const std::string &text) {
    const std::size_t colon = text.find(':');
    Endpoint endpoint{text.substr(0, colon), colon == std::string::npos ? "8088" : text.substr(colon + 1)};
    if (!is_address(endpoint.address.c_str()) || !is_port(endpoint.port.c_str()))
        return std::nullopt;
    return endpoint;
}

bool read_list(const std::string &text, std::vector<Endpoint> &list) {
    list.clear();
    if (text == "none")
        return true;
    for (std::size_t at = 0, comma = 0; comma != std::string::npos; at = comma + 1) {
        comma = text.find(',', at);
        const std::optional<Endpoint> endpoint =
            endpoint_of(text.substr(at, comma == std::string::npos ? comma : comma - at));
        if (!endpoint)
            return false;
        list.push_back(*endpoint);
    }
    return true;
}

Parsed parse(int argc, char **argv, Options &options) {
    static const option names[] = {
        {"bss", required_argument, nullptr, 'b'},
        {"business", required_argument, nullptr, 'a'},
        {"key", required_argument, nullptr, 'k'},
        {"socket", required_argument, nullptr, 's'},
        {"keylog", required_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int letter; (letter = getopt_long(argc, argv, "s:h", names, nullptr)) != -1;) {
        switch (letter) {
            case 'b':
                if (const auto endpoint = endpoint_of(optarg))
                    options.cloud.bss = *endpoint;
                else
                    return program.wrong("not ADDRESS[:PORT]", optarg);
                break;
            case 'a':
                if (!read_list(optarg, options.cloud.business))
                    return program.wrong("not ADDRESS[:PORT],...", optarg);
                break;
            case 'k': {
                std::ifstream file(optarg);
                std::ostringstream text;
                if (!(text << file.rdbuf()))
                    return program.wrong("cannot read the key", optarg);
                options.key = PlatformKey::read(text.str());
                break;
            }
            case 's':
                options.bus = optarg;
                break;
            case 'l':
                if (!options.keys.open(optarg))
                    return program.wrong("cannot write the key log", optarg);
                break;
            case 'h':
                return Parsed::help;
            default:
                return Parsed::wrong;
        }
    }
    if (!options.key)
        return program.wrong("not usable", "the key is no RSA private key in PEM form");
    return optind < argc ? program.wrong("unexpected argument", argv[optind]) : Parsed::run;
}

int serve(Options &options, ubus_context *bus) {
    // Declared in the order of dependence, so that everything ends before what it uses.
    Traffic traffic;
    Faults faults(cloud_faults);
    Cloud cloud(options.cloud, std::move(*options.key), traffic, faults, options.keys);
    BusObject object(bus, cloud, traffic, faults);
    if (!cloud.update_listening())
        return program.cannot_listen(cloud.failed_server());
    return program.live(object);
}

}  // namespace
}  // namespace arvok::lab

int main(int argc, char **argv) {
    using namespace arvok::lab;
    Options options;
    for (int n = 2; n <= 6; n++)
        options.cloud.business.push_back({"100.64.0." + std::to_string(n), "8088"});
    const Parsed parsed = parse(argc, argv, options);
    return program.run(parsed, options.bus, [&options](ubus_context *bus) { return serve(options, bus); });
}
