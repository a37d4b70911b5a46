#include "common/clock.h"

#include <sys/sysinfo.h>

#include <cstdio>

extern "C" {
#include <qzcap.h>
}

namespace arvok {
namespace {

constexpr std::time_t cst_offset = 28800;

std::time_t system_clock() {
    return std::time(nullptr);
}

}  // namespace

std::time_t (*wall_clock)() = system_clock;

std::tm *_cst_localtime(std::time_t t) {
    t += cst_offset;
    return std::gmtime(&t);
}

int need_offset(std::time_t t) {
    // Both calls share one static record, so the first hour is copied before the second call.
    const std::tm *tm = std::localtime(&t);
    const int local_hour = tm ? tm->tm_hour : 0;
    tm = std::gmtime(&t);
    const int gm_hour = tm ? tm->tm_hour : 0;
    const int need = local_hour == gm_hour;
    qzcap_printf("now %d, local hour %d, gm hour %d, need offset %d", static_cast<int>(t), local_hour,
                 gm_hour, need);
    return need;
}

const char *_get_time() {
    static char buf[32];
    buf[0] = '\0';
    if (const std::tm *tm = _cst_localtime(wall_clock()))
        std::snprintf(buf, sizeof buf, "%4d%02d%02d%02d%02d%02d", tm->tm_year + 1900, tm->tm_mon + 1,
                      tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec);
    return buf;
}

long _get_uptime() {
    struct sysinfo info;
    return sysinfo(&info) == 0 ? info.uptime : 0;
}

}  // namespace arvok
