#include <cstdlib>
#include <cstring>

#include "qzcap.h"

// Plain malloc memory throughout: callers also release texts of the bus library with qzcap_free.

void *qzcap_calloc(size_t count, size_t size) {
    return std::calloc(count, size);
}

char *qzcap_strdup(const char *text) {
    return text != nullptr ? strdup(text) : nullptr;
}

void qzcap_free(void *memory) {
    std::free(memory);
}
