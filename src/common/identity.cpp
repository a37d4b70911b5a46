#include "common/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "common/clock.h"

namespace arvok {
namespace {

// The generator only spreads retries and names keys of a peer that sees them anyway; it is seeded once.
void seed_generator() {
    if (seed != 0)
        return;
    struct stat st;
    if (stat("/dev/urandom", &st) == 0 && (st.st_mode & S_IFCHR)) {
        const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            if (read(fd, &seed, sizeof seed) <= 0)
                seed = 0;
            close(fd);
        }
    }
    if (seed == 0)
        seed = static_cast<std::uint32_t>(wall_clock());
    std::srand(seed);
}

bool is_upper_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::uint32_t seed = 0;

int _get_random_number(int min, int max) {
    if (max <= min)
        return min;
    seed_generator();
    return static_cast<int>(min + std::rand() % (static_cast<std::int64_t>(max) - min));
}

text_ptr _get_random_string(int len) {
    static constexpr char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    if (len < 0)
        return nullptr;
    text_ptr text(static_cast<char *>(std::calloc(1, static_cast<std::size_t>(len) + 1)));
    if (!text)
        return nullptr;
    seed_generator();
    for (int i = 0; i < len; i++)
        text.get()[i] = alphabet[static_cast<unsigned>(std::rand()) % (sizeof alphabet - 1)];
    return text;
}

const char *_get_uuid() {
    static char buf[64];
    std::memset(buf, 0, sizeof buf);
    uuid_t uuid;
    uuid_generate_random(uuid);
    uuid_unparse_lower(uuid, buf);
    return buf;
}

int _convert_mac(char *mac) {
    if (!mac)
        return -1;
    if (std::strlen(mac) == 17) {
        for (int i = 2; i < 17; i += 3)
            if (mac[i] != '-' && mac[i] != ':')
                return -1;
        for (std::size_t pair = 1; pair < 6; pair++)
            std::memmove(mac + pair * 2, mac + pair * 3, 2);
        mac[12] = '\0';
    }
    if (std::strlen(mac) != 12)
        return -1;
    for (char *c = mac; *c; c++) {
        if (*c >= 'a' && *c <= 'f')
            *c = static_cast<char>(*c - 'a' + 'A');
        if (!is_upper_hex(*c))
            return -1;
    }
    return 0;
}

int _h2d(char c) {
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return c >= '0' && c <= '9' ? c - '0' : 0;
}

char _d2h(int v) {
    return v >= 0 && v <= 15 ? "0123456789abcdef"[v] : '0';
}

void _c(char *dst, int n, ...) {
    va_list args;
    va_start(args, n);
    for (int i = 0; i < n; i++) {
        const int c = va_arg(args, int);
        if (c == 0)
            break;
        dst[i] = static_cast<char>(c);
    }
    va_end(args);
}

}  // namespace arvok
