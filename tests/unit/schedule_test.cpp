// The calendar of the schedules at chosen instants in several time zones, and against a slow model of it; and
// what the rules want of the hosts.

#include "access/decision.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "access/texts.h"
#include "base/clock.h"
#include "base/text.h"
#include "schedule_model.h"

namespace arvok::access {
namespace {

constexpr const char *zones[] = {"UTC0", "CST-8", "CET-1CEST,M3.5.0,M10.5.0/3"};

schedule_rule rule(int mode, const char *start, const char *end, int enable = 1) {
    return {static_cast<std::uint8_t>(enable), static_cast<std::uint8_t>(mode), start, end};
}

// Evaluates under a time zone; the log of the evaluation is dropped.
struct outcome {
    bool in_range;
    int delay;
};
outcome evaluate(const char *zone, const std::list<host_schedule> &hosts, std::time_t t) {
    setenv("TZ", zone, 1);
    tzset();
    ::testing::internal::CaptureStderr();
    const rule_instant at = rule_instant_at(t, keeps_utc(t));
    outcome seen{false, seconds_to_next_check(hosts, at)};
    for (const host_schedule &host : hosts)
        seen.in_range |= is_in_range(host, at);
    ::testing::internal::GetCapturedStderr();
    return seen;
}

constexpr int hour = 3600, minute = 60, day = 86400;

TEST(Schedule, HoldsAndChangesAtEveryBoundary) {
    constexpr int monday = 0, saturday = 5, sunday = 6;
    const struct {
        std::vector<schedule_rule> rules;
        std::time_t now;
        bool in_range;
        int delay;
    } cases[] = {
        // no rule, or none that counts: a second past the next midnight
        {{}, cst(monday, 0, 0), false, day + 1},
        {{}, cst(monday, 23, 59, 59), false, 2},
        {{rule(0, "08:00", "20:00", 0)}, cst(monday, 9, 0), false, 15 * hour + 1},
        {{rule(0, "08:00", "08:00")}, cst(monday, 8, 0), false, 16 * hour + 1},
        {{rule(0, "0800", "2000")}, cst(monday, 9, 0), false, 15 * hour + 1},
        // to the second
        {{rule(0, "08:00", "20:00")}, cst(monday, 7, 59, 59), false, 1},
        {{rule(0, "08:00", "20:00")}, cst(monday, 8, 0), true, 1},
        {{rule(0, "08:00", "20:00")}, cst(monday, 8, 0, 1), true, 12 * hour - 1},
        {{rule(0, "08:00", "20:00")}, cst(monday, 20, 0), false, 1},
        {{rule(0, "08:00", "20:00")}, cst(monday, 20, 0, 1), false, 4 * hour},
        {{rule(0, "22:00", "06:00")}, cst(monday, 0, 0), true, 6 * hour},
        {{rule(0, "22:00", "06:00")}, cst(monday, 6, 0), false, 1},
        {{rule(0, "22:00", "06:00")}, cst(monday, 22, 0), true, 1},
        {{rule(1, "22:00", "06:00")}, cst(monday, 22, 0), true, 1},
        {{rule(1, "22:00", "06:00")}, cst(monday + 1, 6, 0), false, 1},
        {{rule(5, "21:00", "02:00")}, cst(saturday, 2, 0, 1), false, 22 * hour},
        {{rule(7, "08:00", "24:00")}, cst(sunday, 7, 0), false, hour},
        // digits that are missing, and minutes that carry into the hour
        {{rule(0, "8:05", "9:06")}, cst(monday, 8, 6), true, hour},
        {{rule(0, "12:75", "14:00")}, cst(monday, 13, 14), false, minute},
        {{rule(0, "12:75", "14:00")}, cst(monday, 13, 16), true, 44 * minute},
        // also past midnight
        {{rule(0, "23:75", "6:00")}, cst(monday, 0, 0, 1), false, 15 * minute - 1},
        {{rule(0, "23:75", "6:00")}, cst(monday, 0, 15), true, 5 * hour + 45 * minute},
        {{rule(0, "23:75", "23:70")}, cst(monday, 0, 1), false, 14 * minute},
        // a boundary of a rule for another day counts as one
        {{rule(2, "08:00", "09:00")}, cst(monday, 8, 0), false, 1},
    };
    for (const char *zone : zones) {
        for (const auto &c : cases) {
            const outcome seen = evaluate(zone, {{"", not_evaluated, c.rules}}, c.now);
            EXPECT_EQ(seen.in_range, c.in_range) << zone << " case " << &c - cases;
            EXPECT_EQ(seen.delay, c.delay) << zone << " case " << &c - cases;
        }
    }
}

TEST(Schedule, AgreesWithALookAtEveryMinute) {
    std::mt19937 random(20240701);
    const auto pick = [&random](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    for (int round = 0; round < 3000; round++) {
        bool carries = false;
        std::vector<model_rule> models;
        std::list<host_schedule> hosts(static_cast<std::size_t>(pick(1, 3)));
        for (host_schedule &host : hosts) {
            for (int i = pick(0, 3); i > 0; i--) {
                const int at_night = pick(0, 4) == 0 ? 1 : 0;
                const int hours[] = {pick(23 * at_night, 23), pick(0, 24)};
                const int minutes[] = {pick(60 * at_night, 99), hours[1] == 24 ? 0 : pick(0, 99)};
                const model_rule model{pick(0, 1) * pick(0, 7), hours[0] * 60 + minutes[0],
                                       hours[1] * 60 + minutes[1]};
                const std::string start = format("%02d:%02d", hours[0], minutes[0]),
                                  end = format("%02d:%02d", hours[1], minutes[1]);
                host.rules.push_back(rule(model.mode, start.c_str(), end.c_str()));
                carries |= model.carries();
                if (model.start != model.end)
                    models.push_back(model);
            }
        }
        const int now = pick(0, 6) * 24 * 60 + (pick(0, 3) == 0 ? pick(0, 60) : pick(0, 24 * 60 - 1));
        const int second = pick(1, 59);
        bool in_range = false;
        const int midnight = (now / 1440 + 1) * 1440;
        int change = midnight;
        for (const model_rule &model : models) {
            in_range |= model.holds(now);
            for (int at = now + 1; at < change; at++)
                if (model.holds(at) != model.holds(now))
                    change = at;
        }
        const outcome seen = evaluate(zones[round % 3], hosts, cst(0, 0, now, second));
        EXPECT_EQ(seen.in_range, in_range) << "round " << round;
        // What ends at midnight is seen then, everything else of the next day a second later. An end that
        // is carried past its beginning is looked at for nothing.
        const int until = (change - now) * 60 - second;
        EXPECT_TRUE(seen.delay == until || (change == midnight && seen.delay == until + 1) ||
                    (carries && seen.delay > 0 && seen.delay < until))
            << "round " << round << ": " << seen.delay << " instead of " << until;
    }
}

TEST(Schedule, TheLogTellsTimesPast2038) {
    const std::list<host_schedule> hosts{{"02C0FFEE0002", not_evaluated, {rule(0, "11:14", "11:15")}}};
    setenv("TZ", "UTC0", 1);
    ::testing::internal::CaptureStderr();
    const rule_instant at = rule_instant_at(2147483648, keeps_utc(2147483648));
    EXPECT_TRUE(is_in_range(hosts.front(), at));
    EXPECT_EQ(seconds_to_next_check(hosts, at), 52);
    const std::string log = ::testing::internal::GetCapturedStderr();
    for (const char *part :
         {"now 2147483648, local", "now 2147512448, inrange", "now 2147512448 (2147512440 - 2147512500)"})
        EXPECT_NE(log.find(part), std::string::npos) << part << " in " << log;
}

TEST(Schedule, TheGuestNetworkFollowsItsTimes) {
    const struct {
        guest_schedule schedule;
        std::time_t now;
        bool on;
        std::int64_t delay;
    } cases[] = {
        {{true, 0, guest_forever}, 5000, true, 0},
        {{false, 0, guest_forever}, 5000, false, 0},
        {{false, 1000, 10}, 999, false, 1},
        {{false, 1000, 10}, 1000, true, 600},
        {{false, 1000, 10}, 1599, true, 1},
        {{true, 1000, 10}, 1600, false, 0},
        {{true, 0, 0}, 1000, false, 0},
        {{true, INT64_MAX, 1440}, 1000, false, INT64_MAX - 1000},
        {{true, INT64_MIN, -9}, 1000, false, 0},
    };
    for (const auto &c : cases) {
        const guest_action action = guest_action_at(c.schedule, c.now);
        EXPECT_EQ(action.on, c.on) << &c - cases;
        EXPECT_EQ(action.delay, c.delay) << &c - cases;
    }
}

TEST(Schedule, TextsAreChecked) {
    for (const char *good : {"24:00", "0:00", "00:00", "9:59", "23:59", "12:75"})
        EXPECT_TRUE(is_time_of_day(good)) << good;
    for (const char *bad : {"", ":", "0:0", "24:01", "24:0", "25:00", "12:5a", "a2:00", "1200", "12-00",
                            "123:00", "-1:00", "12:345"})
        EXPECT_FALSE(is_time_of_day(bad)) << bad;
    constexpr std::uint32_t most = 2147483648;
    const std::pair<const char *, std::uint32_t> good[] = {{"1", 1}, {"+07", 7}, {"2147483648", most}};
    for (const auto &[text, number] : good)
        EXPECT_EQ(number_in(text, 1, most), number);
    for (const char *bad : {"", "0", "1x", "x", "1.0", "-1", "2147483649", "99999999999999999999999"})
        EXPECT_EQ(number_in(bad, 1, most), std::nullopt) << bad;
    EXPECT_EQ(number_in(std::nullopt, 0, 9), std::nullopt);
}

}  // namespace
}  // namespace arvok::access
