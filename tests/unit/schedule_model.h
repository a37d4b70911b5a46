#pragma once
/// The calendar of the schedules once more, slowly.

#include <ctime>

namespace arvok::access {

/// 2024-07-01 was a Monday. `day` counts from it, hour and minute are China Standard Time.
inline std::time_t cst(int day, int hour, int minute, int second = 0) {
    return 1719763200 + day * 86400 + hour * 3600 + minute * 60 + second;
}

/// Whether a rule holds, looked up in every day of a week and those beside it.
struct model_rule {
    int mode, start, end;       // minutes of the day
    bool holds(int at) const {  // minutes from a Monday
        for (int d = -1; d < 8; d++) {
            const int weekday = (d + 7) % 7 + 1;
            const int to = end + (end < start ? 24 * 60 : 0);
            if ((mode == 0 || mode == weekday) && d * 24 * 60 + start <= at && at < d * 24 * 60 + to)
                return true;
        }
        return false;
    }
};

}  // namespace arvok::access
