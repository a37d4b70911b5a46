#include "machine.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

extern "C" {
#include <libubox/usock.h>
#include <libubox/ustream.h>
}

namespace arvok::fuzz {

machine_state machine;

namespace {

std::string folder;

// The kernel's answer to a route dump: a default route through 192.168.1.1 on the first interface.
struct route_answer {
    nlmsghdr header;
    rtmsg route;
    rtattr gateway_attr;
    unsigned char gateway[4];
    rtattr interface_attr;
    std::uint32_t interface;
};

struct found_address {
    addrinfo entry;
    sockaddr_in address;
};

bool is_ours(const char *path) {
    return std::strncmp(path, "/qzcap/", 7) == 0 || std::strncmp(path, "/tmp/arvok", 10) == 0 ||
           std::strncmp(path, "/usr/", 5) == 0;
}

std::string redirected(const char *path) {
    return is_ours(path) ? folder + (std::strrchr(path, '/') + 1) : path;
}

// The agent's end of a connection; neither end blocks.
int connect(int (&ends)[2]) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        std::perror("socketpair");
        std::abort();
    }
    const int small = 4096;  // a few answers that nobody takes must fill it
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    return ends[0];
}

int open_connection(side of) {
    int ends[2];
    const int fd = connect(ends);
    machine.far_ends.push_back({ends[1], of});
    return fd;
}

void remove_files() {
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        std::filesystem::remove(entry.path());
}

}  // namespace

void machine_init() {
    const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    folder = std::string(base) + "/arvok-fuzz-XXXXXX";
    if (!mkdtemp(folder.data())) {
        std::perror(folder.c_str());
        std::exit(1);
    }
    folder += '/';
    std::atexit([] { std::filesystem::remove_all(folder); });
    setenv("TZ", "UTC", 1);
    machine_reset();
}

void machine_reset() {
    for (const held_thread &held : machine.threads)
        held.run(held.argument);
    for (const far_end &end : machine.far_ends)
        close(end.fd);
    if (machine.dirty)
        remove_files();
    machine = {};
    machine.now = 1795248000;
    machine.uptime = 86400;
}

const std::vector<armed_timer> &armed_timers() {
    std::erase_if(machine.timers, [](const armed_timer &armed) { return !armed.timer->pending; });
    return machine.timers;
}

void advance(long seconds) {
    machine.now += seconds;
    machine.uptime += seconds;
}

const std::string &file_folder() {
    return folder;
}

void put_file(const std::string &name, std::string_view content) {
    machine.dirty = true;
    std::FILE *file = std::fopen((folder + name).c_str(), "we");
    if (!file)
        return;
    std::fwrite(std::string(content).c_str(), 1, content.size(), file);
    std::fclose(file);
}

int newest_far_end(side of) {
    for (auto end = machine.far_ends.rbegin(); end != machine.far_ends.rend(); ++end)
        if (end->of == of)
            return end->fd;
    return -1;
}

}  // namespace arvok::fuzz

using namespace arvok::fuzz;

// The calls that the linker redirects.
extern "C" {

std::FILE *__real_fopen(const char *path, const char *mode);
[[noreturn]] void __real_exit(int status);
int __real_access(const char *path, int mode);
int __real_rename(const char *from, const char *to);
int __real_socket(int domain, int type, int protocol);
int __real_uloop_timeout_set(uloop_timeout *timer, int ms);
int __real_uloop_timeout_cancel(uloop_timeout *timer);
// The real library has it in its header, and then nothing of it is wrapped.
[[gnu::weak]] int __real_ustream_pending_data(ustream *stream, bool write);
EVP_PKEY *__real_PEM_read_bio_PUBKEY(BIO *text, EVP_PKEY **key, pem_password_cb *ask, void *priv);

std::FILE *__wrap_fopen(const char *path, const char *mode) {
    static char neighbours[] =
        "IP address       HW type     Flags       HW address            Mask     Device\n"
        "192.168.1.1      0x1         0x2         42:d8:2e:f7:bf:78     *        eth0\n";
    if (std::strcmp(path, "/proc/net/arp") == 0)
        return fmemopen(neighbours, std::strlen(neighbours), "r");
    if (mode[0] != 'r')
        machine.dirty = true;
    return __real_fopen(redirected(path).c_str(), mode);
}

int __wrap_access(const char *path, int mode) {
    if (machine.link_forbidden && std::strncmp(path, "/usr/", 5) == 0)
        return 0;  // the client that owns the link instead
    return __real_access(redirected(path).c_str(), mode);
}

// How the agent saves a file.
int __wrap_rename(const char *from, const char *to) {
    machine.dirty = true;
    return __real_rename(from, to);
}

std::FILE *__wrap_popen(const char *command, const char *) {
    static char version[] = "appd version: 2.1.7 (build 41)\n", on[] = "1\n", off[] = "0\n";
    char *output = !std::strstr(command, "uci") ? version : machine.link_forbidden ? off : on;
    return fmemopen(output, std::strlen(output), "r");
}

int __wrap_pclose(std::FILE *output) {
    return std::fclose(output);
}

void __wrap_exit(int status) {
    if (machine.exit_to)
        std::longjmp(*machine.exit_to, 1);
    __real_exit(status);
}

int __wrap_sysinfo(struct sysinfo *info) {
    *info = {};
    info->uptime = machine.uptime;
    return 0;
}

int __wrap_usock(int type, const char *host, const char *) {
    if (!host || !*host)
        return -1;
    if (type & USOCK_SERVER)
        return open_connection(side::listener);
    return open_connection(type & USOCK_IPV4ONLY ? side::cloud : side::gateway);
}

int __wrap_accept4(int listener, sockaddr *, socklen_t *, int) {
    char knock;
    recv(listener, &knock, sizeof knock, 0);
    return open_connection(side::client);
}

int __wrap_socket(int domain, int type, int protocol) {
    if (domain != AF_NETLINK)
        return __real_socket(domain, type, protocol);
    int ends[2];
    const int fd = connect(ends);
    const route_answer answer{
        {sizeof(route_answer), RTM_NEWROUTE, NLM_F_MULTI, 1, static_cast<std::uint32_t>(getpid())},
        {},
        {RTA_LENGTH(4), RTA_GATEWAY},
        {192, 168, 1, 1},
        {RTA_LENGTH(4), RTA_OIF},
        1};
    if (send(ends[1], &answer, sizeof answer, MSG_NOSIGNAL) < 0)
        std::abort();
    machine.far_ends.push_back({ends[1], side::kernel});
    return fd;
}

// The worker's work is done at once; nobody can see the difference but for the order.
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *, void *(*run)(void *), void *argument) {
    *thread = pthread_self();
    if (machine.threads_held)
        machine.threads.push_back({run, argument});
    else
        run(argument);
    return 0;
}

int __wrap_pthread_detach(pthread_t) {
    return 0;
}

// Names with an 'x' do not resolve, those with a 'z' take too long; the others have four addresses, one of
// them private.
int __wrap_getaddrinfo(const char *host, const char *, const addrinfo *, addrinfo **list) {
    if (std::strchr(host, 'x'))
        return EAI_NONAME;
    if (std::strchr(host, 'z'))
        machine.uptime += 15;
    constexpr std::uint32_t addresses[] = {0x64400004, 0x64400003, 0xc0a80105, 0x64400002};
    auto *entries = new found_address[std::size(addresses)]{};
    for (std::size_t i = 0; i < std::size(addresses); i++) {
        entries[i].address.sin_addr.s_addr = htonl(addresses[i]);
        entries[i].entry.ai_addr = reinterpret_cast<sockaddr *>(&entries[i].address);
        entries[i].entry.ai_next = i + 1 < std::size(addresses) ? &entries[i + 1].entry : nullptr;
    }
    *list = &entries->entry;
    return 0;
}

void __wrap_freeaddrinfo(addrinfo *list) {
    delete[] reinterpret_cast<found_address *>(list);
}

// A safe prime takes milliseconds to find, and the same one does for every exchange.
int __wrap_BN_generate_prime_ex(BIGNUM *prime, int, int, const BIGNUM *, const BIGNUM *, BN_GENCB *) {
    return BN_hex2bn(&prime, "FD659277EB502BC7630479BF81435EA7") != 0;
}

// There is one key, and reading it takes longer than everything else that an input does.
EVP_PKEY *__wrap_PEM_read_bio_PUBKEY(BIO *text, EVP_PKEY **, pem_password_cb *, void *) {
    static EVP_PKEY *const key = __real_PEM_read_bio_PUBKEY(text, nullptr, nullptr, nullptr);
    EVP_PKEY_up_ref(key);
    return key;
}

int __wrap_BN_priv_rand(BIGNUM *number, int bits, int, int) {
    return BN_hex2bn(&number, "6D1F95C3B2A70E4B") != 0 && BN_set_bit(number, bits - 1);
}

// As nobody here has the other key, only the high bits change, which text does not have.
int __wrap_EVP_PKEY_encrypt(EVP_PKEY_CTX *, unsigned char *out, std::size_t *, const unsigned char *in,
                            std::size_t size) {
    std::transform(in, in + size, out, [](unsigned char byte) { return byte ^ high_bit; });
    return 1;
}

// What is random is known, so that the peers know the keys that are made of it. No delay becomes 0 by it.
int __wrap_RAND_bytes(unsigned char *bytes, int size) {
    std::memset(bytes, 0x2a, static_cast<std::size_t>(size));
    return 1;
}

int __wrap_uloop_timeout_set(uloop_timeout *timer, int ms) {
    uloop_timeout_cancel(timer);
    const std::int64_t due_ms = std::int64_t{machine.uptime} * 1000 + ms;
    const auto later =
        std::upper_bound(machine.timers.begin(), machine.timers.end(), due_ms,
                         [](std::int64_t due, const armed_timer &other) { return due < other.due_ms; });
    machine.timers.insert(later, {timer, due_ms});
    machine.armed_last = timer;
    return __real_uloop_timeout_set(timer, ms);
}

int __wrap_uloop_timeout_cancel(uloop_timeout *timer) {
    std::erase_if(machine.timers, [timer](const armed_timer &armed) { return armed.timer == timer; });
    return __real_uloop_timeout_cancel(timer);
}

// What waits to be sent weighs more than it is, so that an input soon gets to where further requests wait,
// too.
int __wrap_ustream_pending_data(ustream *stream, bool write) {
    return __real_ustream_pending_data(stream, write) * (write ? 64 : 1);
}
}
