#pragma once
/// What the user says at the start: the command line and the marker file of the test mode.

#include <optional>
#include <string>

#include "cloud/server.h"

namespace arvok {

struct options {
    bool debug = false;                          ///< shortens the cloud's waiting times
    std::optional<std::string> gateway_address;  ///< none: the gateway is found at each connection
    std::optional<cloud::server> bss;            ///< bootstrap server of the cloud platform
    std::string local_port;                      ///< of the local server; empty: the default
};

/// Reads the command line. For -h, -v and whatever is wrong it prints its answer and ends the process.
options parse_options(int argc, char **argv);

/// Where the file `marker` is, debugging is on and the gateway is the one that its first line names, over any
/// option. A file that names none leaves that to the options.
void apply_test_mode(options &chosen, const std::string &marker);

inline constexpr char test_mode_marker[] = "/tmp/arvokclt_test_mode";

}  // namespace arvok
