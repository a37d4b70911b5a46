#include "platform/records.h"

#include <string>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace arvok::platform {

void give_memory_back() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void replace_text(char *&text, std::string_view value) {
    char *const copy = qzcap_strdup(std::string(value).c_str());  // `value` may be of the old text
    qzcap_free(text);
    text = copy;
}

qzcap_laninfo *find_host(const host_list &hosts, std::string_view mac) {
    for (qzcap_laninfo *host : hosts)
        if (host->mac && same_ignoring_case(host->mac, mac))
            return host;
    return nullptr;
}

}  // namespace arvok::platform
