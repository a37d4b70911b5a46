#include "base/log.h"

#include <cstdarg>
#include <cstdio>

namespace arvok {
namespace {

void write_to_standard_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

}  // namespace

void (*log_printf)(const char *format, ...) = write_to_standard_error;

}  // namespace arvok
