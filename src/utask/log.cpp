#include "utask/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

extern "C" {
#include <qzcap.h>
}

namespace arvok {

void ulog(const char *tag, const char *format, ...) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm tm{};
    localtime_r(&now.tv_sec, &tm);
    std::fprintf(stderr, "%04d-%02d-%02d %02d:%02d:%02d.%03ld [%s] ", tm.tm_year + 1900, tm.tm_mon + 1,
                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, now.tv_nsec / 1000000, tag);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

void *ucalloc(std::size_t size, const char *file, int line) {
    void *p = std::calloc(1, size);
    if (!p) {
        qzcap_printf("[ERROR] %s %d alloc failed: %zd\n", file, line, static_cast<ssize_t>(size));
        std::exit(1);
    }
    return p;
}

}  // namespace arvok
