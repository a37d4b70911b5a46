#include "agent/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "base/files.h"
#include "base/network.h"
#include "base/product.h"
#include "base/text.h"

namespace arvok {
namespace {

constexpr char revision[] = "677";
constexpr std::size_t marker_max = 32;
constexpr std::size_t gateway_address_max = 31;
constexpr std::size_t local_port_max = 7;

constexpr int exit_usage = 255;

// -e, -c, -l and -L are taken from the time when they had a meaning, and answer like -h.
constexpr char short_options[] = "hvdeclg:b:p:L:";
constexpr option long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"debug", no_argument, nullptr, 'd'},
    {"gw-addr", required_argument, nullptr, 'g'},
    {"bss-server", required_argument, nullptr, 'b'},
    {"local-port", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void usage() {
    std::fputs(
        "usage:\n"
        "\tarvokclt [-g <ip>] [-b <ip:port>] [-p <port>]\n"
        "\tarvokclt {-v|--version|-h|--help}\n"
        "\n"
        "\t-d, --debug           open debug mode and display log\n"
        "\t-g, --gw-addr         set the address of the connected gateway\n"
        "\t-b, --bss-server      set the server of the BSS platform\n"
        "\t-p, --local-port      set the port that the local server listens on\n"
        "\n",
        stdout);
    std::exit(exit_usage);
}

[[noreturn]] void version() {
    std::printf("arvokclt %s %s\n", product_version, product_architecture);
    std::printf("svn: %s\n", revision);
    std::printf("build: %s %s\n", __TIME__, __DATE__);
    std::exit(0);
}

// The text, when it is what it should be; else the usage.
std::string valid(bool (*is_valid)(std::string_view), const char *text) {
    if (!is_valid(text))
        usage();
    return text;
}

cloud::server bss_server(const char *text) {
    cloud::server named = cloud::parse_server(text);
    if (!cloud::is_valid(named))
        usage();
    return named;
}

}  // namespace

options parse_options(int argc, char **argv) {
    options chosen;
    opterr = 0;  // the usage text is the whole answer
    for (int letter; (letter = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1;) {
        switch (letter) {
            case 'v':
                version();
            case 'd':
                chosen.debug = true;
                break;
            case 'g':
                chosen.gateway_address = valid(is_ipv4_address, optarg);
                break;
            case 'b':
                chosen.bss = bss_server(optarg);
                break;
            case 'p':
                chosen.local_port = cut(valid(is_port, optarg), local_port_max);
                break;
            default:
                usage();
        }
    }
    return chosen;
}

void apply_test_mode(options &chosen, const std::string &marker) {
    if (!file_exists(marker))
        return;
    chosen.debug = true;
    const file_content content = read_file(marker, marker_max);
    const auto *text = std::get_if<std::string>(&content);
    std::string_view address = text ? std::string_view(*text) : std::string_view();
    address = until_zero(address);
    if (address.ends_with('\n'))
        address.remove_suffix(1);
    if (address.empty())
        return;
    chosen.gateway_address = cut(address, gateway_address_max);
}

}  // namespace arvok
