// What clients may ask of the daemon.
#pragma once

#include "bus.h"

namespace arvok {

/// Carries out one message of a client and sends what it has coming.
void handle_message(Bus &bus, Client &client, const Message &message);

}  // namespace arvok
