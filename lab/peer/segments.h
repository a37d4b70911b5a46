/// How many TCP segments a connection has taken: with what the network adds to what is said.
#pragma once

#include <cstdint>

namespace arvok::lab {

/// Acknowledgements and keepalives among them.
struct Segments {
    std::int64_t received = 0, sent = 0;
};

/// Those of an open connection so far; none when the system does not tell.
Segments segments_of(int descriptor);

}  // namespace arvok::lab
