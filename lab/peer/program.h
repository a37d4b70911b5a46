/// What the peers' programs have in common: options, and a life on the bus.
#pragma once

#include <functional>

#include "bus.h"

namespace arvok::lab {

/// A decimal number from 0 to 65535.
bool is_port(const char *text);

/// A dotted IPv4 address.
bool is_address(const char *text);

/// What the options ask for.
enum class Parsed { run, help, wrong };

struct Program {
    const char *name;
    const char *usage;

    /// Says on standard error what is wrong with an option.
    Parsed wrong(const char *what, const char *value) const;

    /// Shows the usage, or connects to the bus at `socket` (null: the system's) and calls `serve`, which sets
    /// everything up and ends in `live`. Returns the exit status; 1 when there is no bus.
    int run(Parsed parsed, const char *socket, const std::function<int(ubus_context *)> &serve) const;

    /// Publishes the object and runs the loop until it ends. Returns the exit status; 1 when the object
    /// cannot be published and when the bus goes away.
    int live(PeerBus &object) const;

    /// Says that the server cannot listen there, for the reason in errno; the exit status.
    int cannot_listen(const std::string &server) const;
};

}  // namespace arvok::lab
