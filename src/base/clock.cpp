#include "base/clock.h"

#include <sys/sysinfo.h>

#include "base/log.h"
#include "base/text.h"

namespace arvok {

std::time_t system_clock() {
    return std::time(nullptr);
}

std::tm china_time(std::time_t t) {
    t += china_offset_s;
    std::tm tm{};
    gmtime_r(&t, &tm);
    return tm;
}

std::string time_digits(std::time_t t) {
    const std::tm tm = china_time(t);
    return format("%4d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                  tm.tm_min, tm.tm_sec);
}

bool keeps_utc(std::time_t t) {
    std::tm local{}, utc{};
    tzset();
    localtime_r(&t, &local);
    gmtime_r(&t, &utc);
    const bool same = local.tm_hour == utc.tm_hour;
    log_printf("now %lld, local hour %d, gm hour %d, need offset %d", static_cast<long long>(t),
               local.tm_hour, utc.tm_hour, same);
    return same;
}

long uptime() {
    struct sysinfo info;
    return sysinfo(&info) == 0 ? info.uptime : 0;
}

}  // namespace arvok
