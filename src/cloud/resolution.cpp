#include "cloud/resolution.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cstdint>

#include "base/clock.h"
#include "base/handle.h"
#include "base/log.h"

namespace arvok::cloud {
namespace {

constexpr long answer_max_s = 15;  // an answer that took longer is not trusted

using found_addresses = handle<addrinfo, &freeaddrinfo>;

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
    return std::any_of(std::begin(reserved), std::end(reserved),
                       [&](const network &net) { return (host & net.mask) == net.address; });
}

// The log texts of a kind of server differ in their wording.
struct kind_texts {
    const char *failed;   // host, reason
    const char *timeout;  // host, seconds
    const char *kept;     // index, host, port
};

constexpr kind_texts bootstrap_texts = {"[ERROR] resolv bss: \"%s\" failed: %s\n",
                                        "[ERROR] resolv bss: \"%s\" timeout: %ds\n",
                                        "[INFO] bss_ip[%d]: %s:%s\n"};
constexpr kind_texts business_texts = {"[ERROR] resolve abi: %s failed: %s\n",
                                       "[ERROR] resolve abi: %s timeout: %ds\n",
                                       "[INFO] abi_ip[%d]: %s:%s\n"};

found_addresses look_up(const std::string &host, const kind_texts &texts) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    const long start = uptime();
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    const long took = uptime() - start;
    if (error != 0) {
        log_printf(texts.failed, host.c_str(), gai_strerror(error));
        return nullptr;
    }
    found_addresses found(list);
    if (took >= answer_max_s) {
        log_printf(texts.timeout, host.c_str(), static_cast<int>(took));
        return nullptr;
    }
    return found;
}

// Appends the usable addresses of one server, up to addresses_max in all.
void add_addresses(std::vector<address> &addresses, const server &named, std::size_t index,
                   const kind_texts &texts) {
    const found_addresses found = look_up(named.host, texts);
    for (const addrinfo *at = found.get(); at; at = at->ai_next) {
        const in_addr &number = reinterpret_cast<const sockaddr_in *>(at->ai_addr)->sin_addr;
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &number, text, sizeof text);
        if (is_reserved(number)) {
            log_printf("[INFO] getaddrinfo skip %s (%s)\n", text, named.host.c_str());
            continue;
        }
        if (addresses.size() == addresses_max)
            continue;
        log_printf(texts.kept, static_cast<int>(addresses.size()), text, named.port.c_str());
        addresses.push_back({{text, named.port}, index});
    }
}

template <typename Addresses>
auto first_untried(Addresses &addresses) -> decltype(addresses.data()) {
    const auto found =
        std::find_if(addresses.begin(), addresses.end(), [](const address &each) { return !each.tried; });
    return found == addresses.end() ? nullptr : &*found;
}

// The first address that has not been tried, which counts as tried from here on; null when there is none.
const address *take(std::vector<address> &addresses) {
    address *found = first_untried(addresses);
    if (found)
        found->tried = true;
    return found;
}

bool choose_bootstrap(resolution &r) {
    const address *taken = take(r.bootstrap_addresses);
    if (!taken) {
        r.bootstrap_addresses.clear();
        add_addresses(r.bootstrap_addresses, r.bootstrap, 0, bootstrap_texts);
        taken = take(r.bootstrap_addresses);
    }
    if (taken)
        r.current = taken->at;
    return taken;
}

bool choose_business(resolution &r) {
    const address *taken = take(r.business_addresses);
    if (!taken) {
        r.business_addresses.clear();
        for (std::size_t i = 0; i < r.business.size(); i++)
            if (!r.business[i].empty())
                add_addresses(r.business_addresses, r.business[i], i, business_texts);
        taken = take(r.business_addresses);
    }
    if (taken) {
        r.current = taken->at;
        r.server_index = taken->server_index;
    }
    return taken;
}

}  // namespace

void resolution::run() {
    found = true;
    if (next == target::current)
        return;
    log_printf("[INFO] (cloud) resolv server\n");
    found = next == target::bootstrap ? choose_bootstrap(*this) : choose_business(*this);
}

void resolution::forget_addresses() {
    bootstrap_addresses.clear();
    business_addresses.clear();
}

const address *resolution::untried() const {
    return first_untried(business_addresses);
}

}  // namespace arvok::cloud
