#include <arpa/inet.h>
#include <netdb.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <atomic>

#include "base/descriptor.h"
#include "captured_log.h"
#include "cloud_fixture.h"
#include "own_network.h"

namespace arvok::cloud {

surroundings machine;
std::mutex look_up;

namespace {

std::atomic<std::int64_t> ahead_ms;

#ifdef SYS_clock_gettime64
constexpr long clock_call = SYS_clock_gettime64;
#else
constexpr long clock_call = SYS_clock_gettime;
#endif

char *copy(const std::string &text) {
    return text.empty() ? nullptr : qzcap_strdup(text.c_str());
}
template <typename Record>
Record *make() {
    return static_cast<Record *>(qzcap_calloc(1, sizeof(Record)));
}

struct found_address {
    addrinfo entry;
    sockaddr_in address;
};

}  // namespace

void advance(std::int64_t ms) {
    ahead_ms += ms;
}

std::string log_text() {
    return logged.so_far();
}

std::string log() {
    return logged.take();
}

bool enter_surroundings() {
    static const bool entered = [] {
        capture_log();
        if (!enter_own_network())
            return false;
        const descriptor any(socket(AF_INET, SOCK_DGRAM, 0));
        ifreq request{};
        std::strcpy(request.ifr_name, "lo:1");
        auto *address = reinterpret_cast<sockaddr_in *>(&request.ifr_addr);
        address->sin_family = AF_INET;
        inet_pton(AF_INET, "100.64.0.1", &address->sin_addr);
        return ioctl(any.get(), SIOCSIFADDR, &request) == 0;
    }();
    return entered;
}

}  // namespace arvok::cloud

using namespace arvok::cloud;

// --- the machine ---

extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const long result = syscall(clock_call, clock, time);
    if (clock == CLOCK_MONOTONIC) {
        const std::int64_t nanoseconds = time->tv_nsec + ahead_ms % 1000 * 1000000;
        time->tv_sec += static_cast<std::time_t>(ahead_ms / 1000 + nanoseconds / 1000000000);
        time->tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    }
    return static_cast<int>(result);
}

extern "C" int sysinfo(struct sysinfo *info) noexcept {
    const long result = syscall(SYS_sysinfo, info);
    info->uptime += static_cast<long>(ahead_ms / 1000);
    return static_cast<int>(result);
}

// Addresses are not looked up.
extern "C" int getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **list) {
    name_answer answer{{host}};
    in_addr numeric;
    if (inet_pton(AF_INET, host, &numeric) != 1) {
        const std::lock_guard<std::mutex> guard(look_up);
        machine.asked.emplace_back(host);
        const auto known = machine.names.find(host);
        if (known == machine.names.end() || hints->ai_family != AF_INET || hints->ai_socktype != SOCK_STREAM)
            return EAI_NONAME;
        answer = known->second;
    }
    advance(answer.seconds * 1000);
    const std::size_t count = answer.addresses.size();
    auto *found = new found_address[count]{};
    for (std::size_t i = 0; i < count; i++) {
        found[i].address.sin_family = AF_INET;
        found[i].address.sin_port = htons(static_cast<std::uint16_t>(port ? std::atoi(port) : 0));
        inet_pton(AF_INET, answer.addresses[i].c_str(), &found[i].address.sin_addr);
        found[i].entry.ai_family = AF_INET;
        found[i].entry.ai_socktype = SOCK_STREAM;
        found[i].entry.ai_addrlen = sizeof found[i].address;
        found[i].entry.ai_addr = reinterpret_cast<sockaddr *>(&found[i].address);
        found[i].entry.ai_next = i + 1 < count ? &found[i + 1].entry : nullptr;
    }
    *list = &found->entry;
    return 0;
}

extern "C" void freeaddrinfo(addrinfo *list) {
    delete[] reinterpret_cast<found_address *>(list);
}

// --- the platform library ---

qzcap_devinfo *qzcap_get_devinfo() {
    auto *record = make<qzcap_devinfo>();
    record->mac = qzcap_strdup("021122334455");
    record->vendor = copy(machine.vendor);
    record->sn = copy(machine.serial);
    return record;
}

qzcap_waninfo *qzcap_get_waninfo() {
    if (machine.user.empty())
        return nullptr;
    auto *record = make<qzcap_waninfo>();
    record->pppoe_user = copy(machine.user);
    return record;
}

qzcap_serverinfo *qzcap_get_serverinfo() {
    auto *record = make<qzcap_serverinfo>();
    record->bss = copy("bss.example:8088");
    record->abi = copy(machine.abi);
    record->devtoken = copy(machine.token);
    record->devid = copy(machine.id);
    return record;
}

int qzcap_set_serverinfo(const qzcap_serverinfo *record, char **) {
    std::string text = std::string(record->bss) + "|" + (record->abi ? record->abi : "") + "|";
    for (std::uint32_t i = 0; i < record->abi_count; i++)
        text += std::string(i ? "," : "") + record->abi_list[i];
    machine.stored.push_back(text + "|" + record->devtoken + "|" + record->devid);
    return 0;
}
