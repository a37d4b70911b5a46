#pragma once
/// The choice of the address to connect to next, and the look-up of servers, which may take long and
/// therefore runs on a thread of its own, on a value that nobody else touches meanwhile. Addresses of private
/// and documentation networks are passed over.

#include <cstddef>
#include <vector>

#include "cloud/server.h"

namespace arvok::cloud {

/// Resolved addresses of one kind.
constexpr std::size_t addresses_max = 5;

/// What to connect to next.
enum class target {
    current,    ///< the current address again
    bootstrap,  ///< the bootstrap server's next address
    business,   ///< the next address of a business server
};

struct address {
    server at;                 ///< the host is the address
    std::size_t server_index;  ///< the business server that it belongs to
    bool tried = false;
};

struct resolution {
    // --- what to look for ---
    target next = target::current;
    server bootstrap;
    business_servers business;

    // --- what was found; it stays for the next time ---
    bool found = false;            ///< there is an address to connect to
    server current;                ///< the one that was chosen
    std::size_t server_index = 0;  ///< the business server that it belongs to
    std::vector<address> bootstrap_addresses, business_addresses;

    /// Chooses the next address, looking names up when none is left that has not been tried. From any thread.
    void run();
    /// Forgets the addresses of both kinds.
    void forget_addresses();
    /// The first address of a business server that was not tried; null when there is none.
    const address *untried() const;
};

}  // namespace arvok::cloud
