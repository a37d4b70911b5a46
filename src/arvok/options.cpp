#include "arvok/options.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/files.h"
#include "common/network.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr char revision[] = "677";
constexpr char test_mode_file[] = "/tmp/arvokclt_test_mode";

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
    std::printf("arvokclt %s %s\n", g_ctx.version, g_ctx.arch);
    std::printf("svn: %s\n", revision);
    std::printf("build: %s %s\n", __TIME__, __DATE__);
    std::exit(0);
}

void set_gateway(const char *text) {
    g_ctx.gw_addr_set = 1;
    if (!is_valid_ip(text))
        usage();
    _strlcpy(g_ctx.gw_addr, text, sizeof g_ctx.gw_addr);
}

void set_bss_server(const char *text) {
    g_ctx.bss_server_set = 1;
    str_to_server(text, g_ctx.bss_server);
    if (!is_valid_server(g_ctx.bss_server))
        usage();
}

void set_local_port(const char *text) {
    if (!is_valid_port(text))
        usage();
    g_ctx.local_port_set = 1;
    _strlcpy(g_ctx.local_port, text, sizeof g_ctx.local_port);
}

}  // namespace

void parse_options(int argc, char **argv) {
    opterr = 0;  // the usage text is the whole answer
    for (int letter; (letter = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1;) {
        switch (letter) {
            case 'v':
                version();
            case 'd':
                g_ctx.debug = 1;
                break;
            case 'g':
                set_gateway(optarg);
                break;
            case 'b':
                set_bss_server(optarg);
                break;
            case 'p':
                set_local_port(optarg);
                break;
            default:
                usage();
        }
    }
}

void apply_test_mode() {
    if (access(test_mode_file, F_OK) != 0)
        return;
    g_ctx.debug = 1;
    g_ctx.gw_addr_set = 1;
    char address[sizeof g_ctx.gw_addr + 1] = "";
    const int len = _read_file(test_mode_file, address, sizeof g_ctx.gw_addr);
    if (len <= 0)
        return;
    if (address[len - 1] == '\n')
        address[len - 1] = '\0';
    _strlcpy(g_ctx.gw_addr, address, sizeof g_ctx.gw_addr);
}

}  // namespace arvok
