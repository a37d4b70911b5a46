/// What the peers' programs have in common: values of options, and a life on the bus.
#pragma once

#include <functional>

extern "C" {
#include <libubus.h>
}

namespace arvok::lab {

/// A decimal number from 0 to 65535.
bool is_port(const char *text);

/// A dotted IPv4 address.
bool is_address(const char *text);

/// Connects to the bus at `socket` (null: the system's) and calls `serve`, which sets everything up, calls
/// `run` when it is complete, and hands on its result. Returns the exit status: 1, with a line on standard
/// error that begins with `name`, when there is no bus, and 1 when the bus goes away.
int live_on_bus(const char *name, const char *socket,
                const std::function<int(ubus_context *bus, const std::function<int()> &run)> &serve);

}  // namespace arvok::lab
