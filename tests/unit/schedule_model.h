#pragma once
/// The calendar of the schedules once more, slowly.

#include <algorithm>
#include <ctime>

namespace arvok::access {

/// 2024-07-01 was a Monday. `day` counts from it, hour and minute are China Standard Time.
inline std::time_t cst(int day, int hour, int minute, int second = 0) {
    return 1719763200 + day * 86400 + hour * 3600 + minute * 60 + second;
}

/// Whether a rule holds, looked up in every day of a week and those beside it. What minutes above 59 carry
/// past midnight: the end is cut there; so is the beginning of a rule for one day.
struct model_rule {
    static constexpr int day = 24 * 60;
    int mode, start, end;  // minutes of the day
    bool carries() const { return start > day || end > day; }
    bool holds(int at) const {  // minutes from a Monday
        const int from = mode == 0 ? start : std::min(start, day);
        const int to = std::min(end, day) + (end < start ? day : 0);
        for (int d = -1; d < 8; d++)
            if ((mode == 0 || mode == (d + 7) % 7 + 1) && d * day + from <= at && at < d * day + to)
                return true;
        return false;
    }
};

}  // namespace arvok::access
