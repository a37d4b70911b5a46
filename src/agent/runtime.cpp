// What the C++ library leaves to the program: memory, and the ends that it would reach by an exception. The
// agent has none of those, and nothing that it could go on with; its supervisor starts it again.

#include <malloc.h>
#include <string.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "base/log.h"
#include "base/memory.h"

void *operator new(std::size_t size) {
    return arvok::allocate(size);
}

// Keys and tokens go through the texts of messages, of log lines and of what is made of them. So all memory
// is overwritten before it is released, whoever used it: nobody can forget to.
void operator delete(void *memory) noexcept {
    if (memory)
        explicit_bzero(memory, malloc_usable_size(memory));
    std::free(memory);
}

void operator delete(void *memory, std::size_t size) noexcept {
    if (memory)
        explicit_bzero(memory, size);
    std::free(memory);
}

namespace {

[[noreturn]] void fail(const char *what) {
    arvok::log_printf("[ERROR] %s\n", what);
    std::abort();
}

}  // namespace

// The library's own bring its whole machinery of exceptions along when it is linked in. Weak, so that a
// release of the library that has one more of them still links.
#define OWN __attribute__((weak))

namespace std {

OWN void __throw_bad_alloc() {
    fail("bad_alloc");
}

OWN void __throw_bad_array_new_length() {
    fail("bad_array_new_length");
}

OWN void __throw_logic_error(const char *what) {
    fail(what);
}

OWN void __throw_length_error(const char *what) {
    fail(what);
}

OWN void __throw_out_of_range_fmt(const char *format, ...) {
    char what[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(what, sizeof what, format, args);
    va_end(args);
    fail(what);
}

OWN void __throw_system_error(int) {
    fail("system_error");
}

}  // namespace std
