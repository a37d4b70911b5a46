#include "rule_seams.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "captured_log.h"
#include "platform/records.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::access {

fake_platform device;
fake_disk disk;
std::time_t now;

namespace {

std::int64_t ahead_ms;
const bool logs = (capture_log(), true);

bool is_refused() {
    return device.calls++ == device.refused;
}

int outcome(bool refused, char **why) {
    if (refused && why)
        *why = qzcap_strdup("refused");
    return refused ? -1 : 0;
}

bool disk_fails(const char *name) {
    disk.names += std::string(disk.names.empty() ? "" : " ") + name;
    const int call = disk.calls++;
    if (disk.repeated ? call < disk.failing : call != disk.failing)
        return false;
    if (disk.error == 0)
        _exit(0);
    errno = disk.error;
    return true;
}

template <typename Record>
Record *make() {
    return static_cast<Record *>(qzcap_calloc(1, sizeof(Record)));
}

template <typename Record>
int list_of(const std::vector<Record *> &records, unsigned *count, Record ***list) {
    *count = static_cast<unsigned>(records.size());
    *list = static_cast<Record **>(qzcap_calloc(records.size() + 1, sizeof(Record *)));
    std::copy(records.begin(), records.end(), *list);
    return 0;
}

qzcap_wifi_ap *interface(unsigned index) {
    auto *record = make<qzcap_wifi_ap>();
    record->index = index;
    const auto guest = device.guests.find(index);
    record->guest = guest != device.guests.end();
    record->enable = qzcap_strdup(!record->guest || guest->second ? "yes" : "no");
    return record;
}

}  // namespace

void pass(int seconds) {
    now += seconds;
    pass_ms(seconds * 1000);
}

void pass_ms(int milliseconds) {
    ahead_ms += milliseconds;
    for (int turn = 0; turn < 3; turn++)
        uloop_run_timeout(0);
}

std::int64_t passed_ms() {
    return ahead_ms;
}

int passed() {
    return static_cast<int>(ahead_ms / 1000);
}

std::string take_log() {
    return logged.take();
}

}  // namespace arvok::access

using namespace arvok::access;

extern "C" {

// --- the machine ---

#ifdef SYS_clock_gettime64
constexpr long clock_call = SYS_clock_gettime64;
#else
constexpr long clock_call = SYS_clock_gettime;
#endif

int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const long result = syscall(clock_call, clock, time);
    if (clock == CLOCK_MONOTONIC) {
        const long nanoseconds = time->tv_nsec + static_cast<long>(ahead_ms % 1000) * 1000000;
        time->tv_sec += static_cast<std::time_t>(ahead_ms / 1000 + nanoseconds / 1000000000);
        time->tv_nsec = nanoseconds % 1000000000;
    }
    return static_cast<int>(result);
}

int sysinfo(struct sysinfo *info) noexcept {
    const long result = syscall(SYS_sysinfo, info);
    info->uptime += passed();
    return static_cast<int>(result);
}

int __real_open(const char *path, int flags, ...);
ssize_t __real_read(int fd, void *bytes, size_t size);
ssize_t __real_write(int fd, const void *bytes, size_t size);
int __real_close(int fd);
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);

int __wrap_open(const char *path, int flags, ...) {
    va_list mode;
    va_start(mode, flags);
    const int bits = flags & O_CREAT ? va_arg(mode, int) : 0;
    va_end(mode);
    return disk_fails("open") ? -1 : __real_open(path, flags, bits);
}
ssize_t __wrap_read(int fd, void *bytes, size_t size) {
    return disk_fails("read") ? -1 : __real_read(fd, bytes, size);
}
// A disk that is full takes a part first.
ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
    if (!disk_fails("write"))
        return __real_write(fd, bytes, size);
    if (__real_write(fd, bytes, size / 2) < 0)
        std::abort();
    return -1;
}
// The machine's own disk may take its time.
int __wrap_fsync(int) {
    return disk_fails("fsync") ? -1 : 0;
}
int __wrap_close(int fd) {
    const bool fails = disk_fails("close");
    __real_close(fd);
    return fails ? -1 : 0;
}
int __wrap_rename(const char *from, const char *to) {
    return disk_fails("rename") ? -1 : __real_rename(from, to);
}
int __wrap_unlink(const char *path) {
    return disk_fails("unlink") ? -1 : __real_unlink(path);
}

// --- the platform library ---

int qzcap_list_laninfo(unsigned *count, qzcap_laninfo ***list) {
    if (is_refused() || !device.lists_hosts)
        return -1;
    std::vector<qzcap_laninfo *> records;
    for (const fake_host &host : device.hosts) {
        auto *record = records.emplace_back(make<qzcap_laninfo>());
        record->index = static_cast<unsigned>(records.size());
        record->mac = qzcap_strdup(host.mac.c_str());
        record->internetaccess = host.access;
        record->uplimit = host.up;
        record->downlimit = host.down;
    }
    return list_of(records, count, list);
}

int qzcap_set_laninfo(uint32_t index, const qzcap_laninfo *record, char **why) {
    const bool silent = index <= static_cast<unsigned>(device.silent_hosts);
    ahead_ms += silent ? 3000 : device.write_ms;
    device.written.push_back(index);
    const bool refused = is_refused() || silent;
    if (!refused)
        device.hosts.at(index - 1) = {record->mac, record->internetaccess, record->uplimit,
                                      record->downlimit};
    return outcome(refused, why);
}

int qzcap_wifi_ap_list(int, unsigned *count, qzcap_wifi_ap ***list) {
    if (is_refused())
        return -1;
    std::vector<qzcap_wifi_ap *> records{interface(1)};
    for (const auto &guest : device.guests)
        records.push_back(interface(guest.first));
    return list_of(records, count, list);
}

qzcap_wifi_ap *qzcap_wifi_ap_get(int, uint32_t index) {
    return is_refused() || (index != 1 && !device.guests.contains(index)) ? nullptr : interface(index);
}

int qzcap_wifi_ap_set(int, uint32_t index, const qzcap_wifi_ap *record, char **why) {
    const bool refused = is_refused();
    if (!refused)
        device.guests[index] = arvok::view_of(record->enable) == "yes";
    return outcome(refused, why);
}

int qzcap_wifi_ap_add(int, const qzcap_wifi_ap *record, char **why) {
    const bool refused = is_refused();
    if (!refused)
        device.guests[5] = arvok::view_of(record->enable) == "yes";
    return outcome(refused, why) == 0 ? 5 : -1;
}

int qzcap_wifi_ap_delete(int, uint32_t index, char **why) {
    const bool refused = is_refused();
    if (!refused)
        device.guests.erase(index);
    return outcome(refused, why);
}
}
