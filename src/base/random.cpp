#include "base/random.h"

#include <openssl/rand.h>
#include <uuid/uuid.h>

#include <cstdint>
#include <cstdlib>

#include "base/log.h"

namespace arvok {
namespace {

// Below `limit`, which is small: what the remainder favours cannot be measured.
std::uint64_t random_below(std::uint64_t limit) {
    std::uint64_t value = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char *>(&value), sizeof value) != 1) {
        log_printf("[ERROR] no random numbers\n");
        std::exit(1);  // a key that everybody can guess would be worse
    }
    return value % limit;
}

}  // namespace

int random_number(int min, int max) {
    if (max <= min)
        return min;
    return static_cast<int>(min + static_cast<std::int64_t>(random_below(
                                      static_cast<std::uint64_t>(static_cast<std::int64_t>(max) - min))));
}

std::string random_text(std::size_t length) {
    static constexpr char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    std::string text(length, '\0');
    for (char &c : text)
        c = alphabet[random_below(sizeof alphabet - 1)];
    return text;
}

std::string random_uuid() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_lower(uuid, text);
    return text;
}

}  // namespace arvok
