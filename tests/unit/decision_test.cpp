// What the rules want of the hosts' records, against a slow model of it.

#include "access/decision.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "base/text.h"
#include "schedule_model.h"

namespace arvok::access {
namespace {

// A host, its rules and its record, and what the record should be at a minute of the week.
struct model_host {
    bool listed, to_free, scheduled;
    std::vector<model_rule> rules;
    int kinds, internet, up, down;  // of its entry
    bool asked;
    int access, up_now, down_now;  // of its record

    int wanted_access(int at) const {
        if (kinds & 2 && internet != 2)
            return asked ? internet : access;
        if (scheduled) {
            bool holds = false;
            for (const model_rule &rule : rules)
                holds |= rule.holds(at);
            return holds ? 1 : 2;
        }
        return to_free ? 2 : access;
    }
    bool is_decided() const { return !(kinds & 2 && internet != 2) || asked; }
};

TEST(Decision, TheRecordsOfTheHostsAreWhatALookAtEveryMinuteWants) {
    std::mt19937 random(20261122);
    const auto pick = [&random](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    const auto spelled = [&pick](int host) {
        constexpr const char *spellings[] = {"02C0FFEE00%02X", "02c0ffee00%02x", "02:c0:FF:ee:00:%02X",
                                             "02-C0-FF-EE-00-%02x"};
        char text[32];
        std::snprintf(text, sizeof text, spellings[pick(0, 3)], static_cast<unsigned>(host + 0xa0));
        return std::string(text);
    };
    for (int round = 0; round < 2000; round++) {
        std::vector<model_host> models;
        std::string schedule_file, restriction_file;
        rule_set rules;
        std::vector<listed_host> hosts;
        std::vector<model_host *> behind;  // the hosts that are listed
        models.reserve(5);
        for (int i = pick(1, 5); i > 0; i--) {
            model_host &host = models.emplace_back(model_host{pick(0, 4) > 0,
                                                              pick(0, 2) == 0,
                                                              pick(0, 2) > 0,
                                                              {},
                                                              pick(0, 3),
                                                              pick(0, 2),
                                                              pick(0, 2),
                                                              pick(0, 2),
                                                              pick(0, 1) > 0,
                                                              pick(0, 2),
                                                              pick(0, 2),
                                                              pick(0, 2)});
            for (int n = host.scheduled ? pick(1, 3) : 0; n > 0; n--) {
                const model_rule model{pick(0, 7), pick(0, 23 * 60 + 59), pick(0, 24 * 60)};
                const bool counts = pick(0, 3) > 0;
                schedule_file +=
                    spelled(i) + format("|%d|%02d:%02d|%02d:%02d|%d|c|g\n", model.mode, model.start / 60,
                                        model.start % 60, model.end / 60, model.end % 60, counts);
                if (counts && model.start != model.end)
                    host.rules.push_back(model);
            }
            if (host.kinds)
                restriction_file +=
                    spelled(i) + format("|%d|%d|%d|%d\n", host.kinds, host.internet, host.down, host.up);
            if (host.to_free)
                rules.to_free.add(host_id(spelled(i)));
            if (host.listed) {
                hosts.push_back({host_id(spelled(i)), host.access, host.up_now, host.down_now});
                behind.push_back(&host);
            }
        }
        rules.times.load(schedule_file);
        rules.limits.load(restriction_file);
        auto model =
            std::find_if(models.rbegin(), models.rend(), [](const auto &host) { return host.kinds; });
        for (restriction &entry : rules.limits.entries()) {
            entry.asked = model->asked;
            model = std::find_if(model + 1, models.rend(), [](const auto &host) { return host.kinds; });
        }
        const int now = pick(0, 7 * 24 * 60 - 1), second = pick(1, 59);
        const rule_instant at = rule_instant_at(cst(0, 0, now, second), round % 2 == 0);
        ::testing::internal::CaptureStderr();
        const decision made = wanted(rules, hosts, at);
        auto change = made.changes.begin();
        std::size_t settled = 0;
        for (std::size_t i = 0; i < hosts.size(); i++) {
            const model_host &host = *behind[i];
            const int access = host.wanted_access(now);
            const bool rates = host.kinds & 1 && host.asked;
            const int up = rates ? host.up : host.up_now, down = rates ? host.down : host.down_now;
            if (access != host.access || up != host.up_now || down != host.down_now) {
                ASSERT_NE(change, made.changes.end()) << "round " << round;
                EXPECT_EQ(change->host, i) << "round " << round;
                EXPECT_EQ(change->access, access) << "round " << round;
                EXPECT_EQ(std::pair(change->up_limit, change->down_limit), std::pair(up, down));
                hosts[i] = {hosts[i].id, change->access, change->up_limit, change->down_limit};
                ++change;
            }
            settled += host.to_free && host.is_decided();
            // Nobody has to look before the time that was told.
            const int until = now + (made.next_s + second - 1) / 60;
            for (int later = now + 1; later <= until; later++)
                ASSERT_TRUE(host.wanted_access(later) == access || later % 1440 == 0)
                    << "round " << round << " minute " << later;
        }
        EXPECT_EQ(change, made.changes.end()) << "round " << round;
        EXPECT_EQ(made.settled.size(), settled) << "round " << round;
        EXPECT_TRUE(wanted(rules, hosts, at).changes.empty()) << "round " << round;
        ::testing::internal::GetCapturedStderr();
    }
}

// Neither a schedule nor what it would overrule says anything.
TEST(Decision, WithoutAClockSchedulesWantNothing) {
    rule_set rules;
    rules.times.load("A|0|0:00|24:00|1|c|g\n");
    rules.to_free = hosts_to_free({host_id("A"), host_id("B"), host_id("")});
    const decision made =
        wanted(rules, {{host_id("a"), 0, 0, 0}, {host_id("b"), 0, 0, 0}, {host_id(""), 0, 0, 0}}, {});
    EXPECT_EQ(made.next_s, 60);
    ASSERT_EQ(made.changes.size(), 1u);
    EXPECT_EQ(made.changes[0].host, 1u);
    EXPECT_EQ(made.settled, std::vector<host_id>{host_id("B")});
}

}  // namespace
}  // namespace arvok::access
