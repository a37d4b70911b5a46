#pragma once
/// The choice of the server to connect to next and the look-up of its address, which may take long and
/// therefore runs on a thread of its own. Addresses of private and documentation networks are passed over.

#include <cstdint>

#include "cloud_client/server_record.h"

namespace arvok {

constexpr std::size_t abi_max = 5;        ///< business servers
constexpr std::size_t addresses_max = 5;  ///< resolved addresses of one kind

/// What to connect to next.
enum server_kind : std::int32_t {
    server_current = 0,  ///< the current address again
    server_bss = 1,      ///< the bootstrap server's next address
    server_abi = 2,      ///< the next address of a business server
};

/// Everything that the worker thread touches. What to look up is copied in when it starts; what it found
/// stays for the next time.
struct server_resolver {
    std::int32_t kind;               ///< in: server_kind
    server bss;                      ///< in: the names to look up
    server abi[abi_max];             ///< in: as above
    std::int32_t result;             ///< out: 0, or -1: no address to be had
    server current;                  ///< out: the chosen address
    std::int32_t abi_index;          ///< out: the business server that it belongs to
    server bss_addr[addresses_max];  ///< resolved, with their state
    server abi_addr[addresses_max];
    std::int32_t abi_map[addresses_max];  ///< which business server an address belongs to
};

/// Chooses the next address by `kind`, looking names up when none is left that has not been tried. On the
/// worker thread.
void resolve_server(server_resolver &resolver);

/// Forgets the resolved addresses of both kinds. On the loop thread, with no resolution under way.
void forget_addresses(server_resolver &resolver);

}  // namespace arvok
