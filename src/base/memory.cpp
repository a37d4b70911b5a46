#include "base/memory.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "base/log.h"

namespace arvok {
namespace {

constexpr int large_piece = 64 * 1024;  // bytes
constexpr int times = 2;                // a peer may take a while to read a long message
constexpr int pause_ms = 4000;

}  // namespace

// The line is of texts and ints only, which take no memory; nor may anything that would be done at a usual
// end.
void *allocate(std::size_t size) {
    if (void *memory = std::malloc(size))
        return memory;
    log_printf("[ERROR] %s %d alloc failed: %d\n", "memory.cpp", __LINE__,
               static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
    _exit(1);
}

// Only this C library keeps for itself what was released.
#ifdef __GLIBC__
void return_large_memory() {
    mallopt(M_MMAP_THRESHOLD, large_piece);
    mallopt(M_TRIM_THRESHOLD, large_piece);
}
#else
void return_large_memory() {}
#endif

void memory_return::soon() {
    left_ = times;
    if (!next_.is_armed())
        next_.arm(pause_ms);
}

void memory_return::give_back() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    if (--left_ > 0)
        next_.arm(pause_ms);
}

}  // namespace arvok
