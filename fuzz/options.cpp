// The command line, the test-mode marker file, and the stored servers.

#include "arvok/options.h"

#include <getopt.h>

#include <cstring>

#include "context.h"
#include "machine.h"
#include "platform.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

constexpr char marker_file[] = "arvokclt_test_mode";

std::vector<std::string> lines(std::string_view text) {
    Input input(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
    std::vector<std::string> all;
    while (!input.empty())
        all.emplace_back(input.until('\n'));
    return all;
}

// The usage text and the version end the process; here they only end the reading.
void parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "arvokclt");
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    optind = 0;  // begins anew
    std::jmp_buf end;
    machine.exit_to = &end;
    if (setjmp(end) == 0)
        parse_options(static_cast<int>(arguments.size()), argv.data());
    machine.exit_to = nullptr;
}

template <std::size_t N>
bool ends(const char (&text)[N]) {
    return std::memchr(text, '\0', N) != nullptr;
}

class Settings : public Stage {
  public:
    // Where the settings lead: to the cloud, to both addresses that the gateway may have, and in words.
    void follow() {
        cc_run();
        ls_run();
        for (int attempt = 0; attempt < 2; attempt++) {
            arvok_disconnect();
            ec_run();
            turn();
        }
        char server[128] = "", status[128] = "";
        get_cloud_status(server, sizeof server, status, sizeof status);
        set_server_info();
    }

  protected:
    void message(std::string_view) override {}
    void raw(std::string_view) override {}
};

}  // namespace

void options(Input input) {
    parse(lines(input.until('\f')));
    const std::string_view marker = input.until('\f');
    if (!marker.empty())
        put_file(marker_file, marker);
    apply_test_mode();
    require(ends(g_ctx.gw_addr) && ends(g_ctx.local_port) && ends(g_ctx.bss_server.host) &&
                ends(g_ctx.bss_server.port),
            "keeps a text that does not end");
    platform.servers = lines(input.rest());
    Settings().follow();
}

}  // namespace arvok::fuzz
