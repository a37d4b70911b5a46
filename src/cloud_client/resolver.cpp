#include "cloud_client/resolver.h"

#include <arpa/inet.h>
#include <netdb.h>

#include "common/clock.h"
#include "common/handle.h"
#include "common/text.h"

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

constexpr long answer_max_s = 15;  // an answer that took longer is not trusted

using addresses_ptr = handle<addrinfo, &freeaddrinfo>;

struct network {
    std::uint32_t address, mask;
};

constexpr network reserved[] = {
    {0x00000000, 0xff000000},  // 0.0.0.0/8
    {0x0a000000, 0xff000000},  // 10.0.0.0/8
    {0x7f000000, 0xff000000},  // 127.0.0.0/8
    {0xac100000, 0xfff00000},  // 172.16.0.0/12
    {0xa9fe0000, 0xffff0000},  // 169.254.0.0/16
    {0xc0a80000, 0xffff0000},  // 192.168.0.0/16
    {0xffffffff, 0xffffffff},  // 255.255.255.255
    {0xc0000200, 0xffffff00},  // 192.0.2.0/24
    {0xc6336400, 0xffffff00},  // 198.51.100.0/24
    {0xcb007100, 0xffffff00},  // 203.0.113.0/24
};

bool is_reserved(const in_addr &address) {
    const std::uint32_t host = ntohl(address.s_addr);
    for (const network &net : reserved)
        if ((host & net.mask) == net.address)
            return true;
    return false;
}

// The log texts of a kind of server differ in their wording.
struct kind_texts {
    const char *failed;   // host, reason
    const char *timeout;  // host, seconds
    const char *kept;     // index, host, port
};

constexpr kind_texts bss_texts = {"[ERROR] resolv bss: \"%s\" failed: %s\n",
                                  "[ERROR] resolv bss: \"%s\" timeout: %ds\n", "[INFO] bss_ip[%d]: %s:%s\n"};
constexpr kind_texts abi_texts = {"[ERROR] resolve abi: %s failed: %s\n",
                                  "[ERROR] resolve abi: %s timeout: %ds\n", "[INFO] abi_ip[%d]: %s:%s\n"};

addresses_ptr look_up(const char *host, const kind_texts &texts) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const long start = _get_uptime();
    const int error = getaddrinfo(host, nullptr, &hints, &found);
    const long took = _get_uptime() - start;
    if (error != 0) {
        qzcap_printf(texts.failed, host, gai_strerror(error));
        return nullptr;
    }
    addresses_ptr addresses(found);
    if (took >= answer_max_s) {
        qzcap_printf(texts.timeout, host, static_cast<int>(took));
        return nullptr;
    }
    return addresses;
}

// Appends the usable addresses of one server, up to addresses_max in all. Returns their number in all.
std::size_t add_addresses(const server &named, const kind_texts &texts, server *addresses,
                          std::size_t count) {
    const addresses_ptr found = look_up(named.host, texts);
    for (const addrinfo *at = found.get(); at; at = at->ai_next) {
        const in_addr &address = reinterpret_cast<const sockaddr_in *>(at->ai_addr)->sin_addr;
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, text, sizeof text);
        if (is_reserved(address)) {
            qzcap_printf("[INFO] getaddrinfo skip %s (%s)\n", text, named.host);
            continue;
        }
        if (count == addresses_max)
            continue;
        server &kept = addresses[count];
        _strlcpy(kept.host, text, sizeof kept.host);
        _strlcpy(kept.port, named.port, sizeof kept.port);
        kept.state = server_untried;
        qzcap_printf(texts.kept, static_cast<int>(count), kept.host, kept.port);
        count++;
    }
    return count;
}

void forget(server (&addresses)[addresses_max]) {
    for (server &address : addresses)
        address = {};
}

// Makes the first address that has not been tried the current one. Its index, or -1.
int take_address(server (&addresses)[addresses_max], server &current) {
    for (std::size_t i = 0; i < addresses_max; i++) {
        if (addresses[i].state != server_untried)
            continue;
        current = addresses[i];
        addresses[i].state = server_tried;
        return static_cast<int>(i);
    }
    return -1;
}

int resolve_bss(server_resolver &resolver) {
    if (take_address(resolver.bss_addr, resolver.current) >= 0)
        return 0;
    forget(resolver.bss_addr);
    add_addresses(resolver.bss, bss_texts, resolver.bss_addr, 0);
    return take_address(resolver.bss_addr, resolver.current) >= 0 ? 0 : -1;
}

int take_abi(server_resolver &resolver) {
    const int taken = take_address(resolver.abi_addr, resolver.current);
    if (taken < 0)
        return -1;
    resolver.abi_index = resolver.abi_map[taken];
    return 0;
}

int resolve_abi(server_resolver &resolver) {
    if (take_abi(resolver) == 0)
        return 0;
    forget(resolver.abi_addr);
    std::size_t count = 0;
    for (std::size_t i = 0; i < abi_max; i++) {
        if (resolver.abi[i].state != server_untried)
            continue;
        const std::size_t first = count;
        count = add_addresses(resolver.abi[i], abi_texts, resolver.abi_addr, count);
        for (std::size_t at = first; at < count; at++)
            resolver.abi_map[at] = static_cast<std::int32_t>(i);
    }
    return take_abi(resolver);
}

}  // namespace

void resolve_server(server_resolver &resolver) {
    resolver.result = 0;
    if (resolver.kind == server_current)
        return;
    qzcap_printf("[INFO] (cloud) resolv server\n");
    resolver.result = resolver.kind == server_bss ? resolve_bss(resolver) : resolve_abi(resolver);
}

void forget_addresses(server_resolver &resolver) {
    forget(resolver.bss_addr);
    forget(resolver.abi_addr);
}

}  // namespace arvok
