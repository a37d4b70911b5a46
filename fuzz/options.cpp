// The command line, the test-mode marker file, and the stored servers.

#include "agent/options.h"

#include <getopt.h>

#include "platform.h"
#include "targets.h"

// Of the sanitizer, where there is one.
extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace arvok::fuzz {
namespace {

constexpr char marker_file[] = "arvokclt_test_mode";

std::vector<std::string> lines(std::string_view text) {
    std::vector<std::string> all;
    for (Input input(text); !input.empty();)
        all.emplace_back(input.until('\n'));
    return all;
}

// The usage text and the version end the process; here they only end the reading, and what was read is lost.
arvok::options parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "arvokclt");
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    arvok::options chosen;
    optind = 0;  // begins anew
    std::jmp_buf end;
    machine.exit_to = &end;
    if (__lsan_disable)
        __lsan_disable();
    if (setjmp(end) == 0)
        chosen = parse_options(static_cast<int>(argv.size() - 1), argv.data());
    if (__lsan_enable)
        __lsan_enable();
    machine.exit_to = nullptr;
    return chosen;
}

}  // namespace

// Where the settings lead: to both addresses that the gateway may have, and into and out of the cloud.
void options(Input input) {
    arvok::options chosen = parse(lines(input.until('\f')));
    const std::string_view marker = input.until('\f');
    if (!marker.empty())
        put_file(marker_file, marker);
    apply_test_mode(chosen, test_mode_marker);
    platform.servers = lines(input.rest());
    GatewayPeer gateway_peer;
    CloudPeer cloud_peer;
    Stage stage({&gateway_peer, &cloud_peer}, std::move(chosen));
    climb_to(4, stage, cloud_peer);
    for (const char *line : {R"({"Ack":"Activate","Result":0,"DevID":"id","DevToken":"token"})",
                             R"({"Ack":"Connect","Result":-2})",
                             R"({"Ack":"Boot","Result":0,"BizPlat":[{"ServerAddr":"a.b","ServerPort":1}]})"})
        stage.say(cloud_peer, line);
    stage.play(Input("-\n!0"));
}

}  // namespace arvok::fuzz
