// The rule files as they may be found after years, the rules that memory holds then, and what becomes of
// both.

#include <gtest/gtest.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "access/enforcer.h"
#include "base/clock_watch.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char schedule_file[] = "extcc-lht.cfg", restriction_file[] = "extcc-lhpc.cfg",
               free_file[] = "extcc-lhf.cfg";

std::time_t now;

class Rules : public ::testing::Test {
  protected:
    void SetUp() override {
        folder_ = std::filesystem::temp_directory_path() / ("rules-" + std::to_string(getpid()) + "/");
        std::filesystem::create_directory(folder_);
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    void write(const char *name, const std::string &text) {
        std::ofstream(folder_ / name, std::ios::binary) << text;
    }
    std::string read(const char *name) {
        std::ostringstream text;
        text << std::ifstream(folder_ / name, std::ios::binary).rdbuf();
        return text.str();
    }
    // "MAC(enable mode start-end ...)" of every host, newest first.
    static std::string told(const schedules &all) {
        std::string text;
        for (const host_schedule &host : all.hosts()) {
            text += host.mac + "(";
            for (auto rule = host.rules.rbegin(); rule != host.rules.rend(); ++rule)
                text +=
                    format("%u %u %s-%s;", rule->enable, rule->mode, rule->start.c_str(), rule->end.c_str());
            text += ")";
        }
        return text;
    }
    static std::string told(const restrictions &all) {
        std::string text;
        for (const restriction &entry : all.entries())
            text += entry.mac +
                    format(" %u %u %u %u;", entry.kinds, entry.internet, entry.down_limit, entry.up_limit);
        return text;
    }

    std::filesystem::path folder_;
};

TEST_F(Rules, AHostIsItsMacHoweverItIsSpelled) {
    for (const char *spelling : {"02C0FFEE00ab", "02:c0:ff:ee:00:AB", "02-C0-FF-EE-00-ab"}) {
        EXPECT_EQ(host_id(spelling).text(), "02C0FFEE00AB");
        EXPECT_EQ(kept_mac(spelling), spelling);
    }
    const std::pair<const char *, const char *> others[] = {{"02C0FFEE00AG", "02C0FFEE00AG"},
                                                            {"02:C0:FF:EE:00:1", "02:C0:FF:EE:00:"},
                                                            {"0123456789abcdefgh", "0123456789abcde"},
                                                            {"a|b\nc", "a b c"},
                                                            {"", ""},
                                                            {"12345678901234\xc3\xa9", "12345678901234"},
                                                            {"12345678901234\xc3", "12345678901234"}};
    for (const auto &[given, kept] : others) {
        EXPECT_EQ(kept_mac(given), kept);
        EXPECT_EQ(host_id(given).text(), upper_case(kept));
        EXPECT_EQ(host_id(kept), host_id(given));  // as it comes back from a file
    }
}

TEST_F(Rules, WhatAScheduleFileHoldsIsTakenLineByLine) {
    const struct {
        std::string file;
        const char *rules;
    } cases[] = {
        {"A|0|8:00|9:00|1|c|g\nB|7|22:00|06:00|0|nocid|\n", "B(0 7 22:00-06:00;)A(1 0 8:00-9:00;)"},
        {"A|0|8:00|9:00|1|c|g\na|1|10:00|11:00|1|c|g\n", "A(1 1 10:00-11:00;1 0 8:00-9:00;)"},
        {"A|0|8:00|9:\nB|1|8:00|9:00|1|c|g", "B(1 1 8:00-9:00;)A(0 0 8:00-9:;)"},
        {"\n\n|||||\n", "(0 0 -;)"},
        {"|0|8:00|9:00|1|c|g\n", "(1 0 8:00-9:00;)"},
        {"A||8:00|9:00|1|c|g\n", "A(0 0 -;)"},  // an empty field ends the line
        {"02:C0:FF:EE:00:01|0|8:00|9:00|1|c|g\n02C0FFEE0001|1|8:00|9:00|1|c|g\n",
         "02:C0:FF:EE:00:01(1 1 8:00-9:00;1 0 8:00-9:00;)"},
        {"0123456789ABCDEFGH|0|8:00|9:00|1|c|g\n", "0123456789ABCDE(1 0 8:00-9:00;)"},
        {"A|300|8:00|9:00|99|c|g\n", "A(99 44 8:00-9:00;)"},  // bytes
        {std::string("A|0|8:00\0|9:00|1|c|g\n", 21), "A(0 0 8:00-;)"},
    };
    for (const auto &c : cases) {
        write(schedule_file, c.file);
        EXPECT_EQ(told(rule_store(folder_).rules().times), c.rules) << &c - cases;
    }
}

TEST_F(Rules, AScheduleTakesThePlaceOfItsHostsAndOfNoOther) {
    // Neither a zero within a line, nor a text that looks like another host, nor an end that is missing costs
    // anything.
    const std::string odd = std::string("AB|0|8:0\0|9:00\n", 15), other = "CD34|0|1:00|2:00|1|AB12|g";
    write(schedule_file, odd + "AB12|0|1:00|2:00|1|c|g\nab12|0|1:00|2:00|1|c|g\n" + other);
    rule_store store(folder_);
    EXPECT_EQ(store.rules().times.size(), 4u);
    EXPECT_EQ(store.set_schedule({"EF56", not_evaluated, {}, ""}, true), stored::done);
    EXPECT_EQ(store.set_schedule({"", not_evaluated, {}, ""}, true), stored::done);
    EXPECT_EQ(store.rules().times.size(), 4u);
    EXPECT_EQ(store.set_schedule({"aB12", not_evaluated, {{1, 0, "3:00", "4:00"}}, "aB12|0|3:00|4:00|1||\n"},
                                 false),
              stored::done);
    EXPECT_EQ(read(schedule_file), odd + other + "\naB12|0|3:00|4:00|1||\n");
    EXPECT_EQ(told(store.rules().times), "aB12(1 0 3:00-4:00;)CD34(1 0 1:00-2:00;)AB(0 0 8:0-;)");
    // Of a line that is too long, what is told is kept.
    const std::string start = "CD34|0|1:00|2:00|1|" + std::string(15, 'c');
    write(schedule_file, start + std::string(50, 'c') + "|" + std::string(15, 'g') + std::string(50, 'g'));
    {
        rule_store long_ids(folder_);
        EXPECT_EQ(long_ids.set_schedule({"", not_evaluated, {}, ""}, true), stored::done);
    }
    EXPECT_EQ(read(schedule_file), start + "|" + std::string(15, 'g') + "\n");
    EXPECT_EQ(store.set_schedule({"CD34", not_evaluated, {}, ""}, true), stored::done);
    EXPECT_EQ(told(rule_store(folder_).rules().times), told(store.rules().times));
    EXPECT_EQ(rule_store(folder_).rules().to_free, (hosts_to_free({host_id("ef56"), host_id("cd34")})));
    store.freed({host_id("EF56"), host_id("CD34")});
    EXPECT_FALSE(std::filesystem::exists(folder_ / free_file));
}

TEST_F(Rules, BlockingAndRatesComeBackReversed) {
    write(restriction_file, "A|3|0|10|20\nB|1|9|1|2\nC|2|1|5|6\na|2|2|0|0\n1234567890123456|2|0|0|0\nD|x\n");
    rule_store store(folder_);
    restrictions all = store.rules().limits;
    EXPECT_EQ(told(all), "D 0 0 0 0;123456789012345 2 0 0 0;C 2 1 0 0;B 1 0 1 2;A 3 2 10 20;");
    EXPECT_TRUE(all.blocks(host_id("c")));
    EXPECT_FALSE(all.blocks(host_id("A")));
    EXPECT_EQ(store.set_restrictions(all, {}), stored::done);
    EXPECT_EQ(read(restriction_file),
              "D|0|0|0|0\n123456789012345|2|0|0|0\nC|2|1|0|0\nB|1|0|1|2\nA|3|2|10|20\n");
    all.drop(restricts_internet);
    EXPECT_EQ(told(all), "D 0 0 0 0;B 1 0 1 2;A 1 2 10 20;");
    all.entry_with(restricts_internet, "a").internet = 1;
    EXPECT_EQ(told(all), "D 0 0 0 0;B 1 0 1 2;a 3 1 10 20;");  // as it was given last
    all.entry_with(restricts_rate, "1234567890123456").up_limit = 7;
    EXPECT_EQ(told(all), "123456789012345 1 0 0 7;D 0 0 0 0;B 1 0 1 2;a 3 1 10 20;");
    EXPECT_EQ(told(store.rules().limits),
              "D 0 0 0 0;123456789012345 2 0 0 0;C 2 1 0 0;B 1 0 1 2;A 3 2 10 20;");
}

TEST_F(Rules, ThereIsAnEndToWhatIsKept) {
    rule_store store(folder_);
    const auto schedule_of = [](const char *mac, std::size_t rules) {
        host_schedule host{mac};
        for (std::size_t i = 0; i < rules; i++) {
            host.rules.push_back({1, 0, "1:00", "2:00"});
            host.lines += std::string(mac) + "|0|1:00|2:00|1|c|g\n";
        }
        return host;
    };
    EXPECT_EQ(store.set_schedule(schedule_of("A", rule_store::rules_max - 1), false), stored::done);
    EXPECT_EQ(store.set_schedule(schedule_of("B", 2), false), stored::too_many);
    EXPECT_EQ(store.set_schedule(schedule_of("B", 1), false), stored::done);
    EXPECT_EQ(store.set_schedule(schedule_of("B", 2), false), stored::too_many);
    EXPECT_EQ(rule_store(folder_).rules().times.size(), rule_store::rules_max);
    EXPECT_EQ(store.set_schedule(schedule_of("B", 0), true), stored::done);
    std::string one_each;
    for (std::size_t i = 1; i < rule_store::scheduled_max; i++)
        one_each += schedule_of(std::to_string(i).c_str(), 1).lines;
    write(schedule_file, one_each);
    rule_store crowd(folder_);
    EXPECT_EQ(crowd.set_schedule(schedule_of("last", 1), false), stored::done);
    EXPECT_EQ(crowd.set_schedule(schedule_of("more", 1), false), stored::too_many);
    EXPECT_EQ(crowd.set_schedule(schedule_of("more", 0), true), stored::done);
    EXPECT_EQ(crowd.set_schedule(schedule_of("last", 2), false), stored::done);
    restrictions limits;
    for (std::size_t i = 0; i < rule_store::hosts_max; i++)
        limits.entry_with(restricts_rate, std::to_string(i)).up_limit = 1;
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::done);
    limits.entry_with(restricts_rate, "more");
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::too_many);
    EXPECT_EQ(store.rules().limits.entries().size(), rule_store::hosts_max);
    // What restricts nothing makes room, the oldest first, but not what has yet to lift a limit.
    limits.entry_with(restricts_rate, "0").up_limit = 0;
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::too_many);
    limits = store.rules().limits;
    for (const char *host : {"2", "1"})
        limits.entry_with(restricts_rate, host).up_limit = 0;
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::done);
    for (const char *host : {"X", "Y"}) {
        limits.entry_with(restricts_internet, host).internet = 0;
        EXPECT_EQ(store.set_restrictions(limits, {}), stored::done);
        limits = store.rules().limits;
    }
    EXPECT_EQ(limits.entries().size(), rule_store::hosts_max);
    EXPECT_TRUE(limits.find(host_id("0")) && limits.find(host_id("3")) && limits.blocks(host_id("X")));
    EXPECT_FALSE(limits.find(host_id("1")) || limits.find(host_id("2")));
    for (int i = 0; i < 3; i++)
        limits.entry_with(restricts_internet, "FREE" + std::to_string(i)).internet = unrestricted;
    limits.entry_with(restricts_internet, "Z").internet = 0;
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::too_many);
    limits = store.rules().limits;
    for (int i = 0; i < 3; i++)
        limits.entry_with(restricts_internet, "FREE" + std::to_string(i)).internet = unrestricted;
    EXPECT_EQ(store.set_restrictions(limits, {}), stored::done);  // they restrict nothing, kept or not
    // Nobody is refused for hosts that never come back: the one that is away the longest gives its place.
    std::string away;
    for (std::size_t i = 0; i < hosts_to_free::max; i++)
        away += "AWAY" + std::to_string(i) + "\n";
    write(free_file, away);
    rule_store full(folder_);
    EXPECT_EQ(full.set_schedule(schedule_of("A", 0), true), stored::done);
    EXPECT_EQ(read(free_file), away.substr(6) + "A\n");
    EXPECT_TRUE(full.rules().to_free == rule_store(folder_).rules().to_free);
}

TEST_F(Rules, NothingIsEvaluatedBeforeTheClockIsSet) {
    uloop_init();
    setenv("TZ", "CST-8", 1);
    tzset();
    write(schedule_file, "02C0FFEE0001|0|00:00|24:00|1|c|g\n");
    rule_store store(folder_);
    {
        enforcer applier(store, [] { return now; });
        const struct {
            std::time_t time;
            int delay;
            bool decides;  // whether the device keeps UTC
        } cases[] = {{0, 60000, false},
                     {1590969599, 60000, false},
                     {1590969600, 57600000, false},
                     {1590969601, 57599000, true},
                     {1590969602, 57598000, false}};
        for (const auto &c : cases) {
            now = c.time;
            const decision made =
                wanted(store.rules(), {},
                       now < clock_set_after ? std::nullopt : std::optional(rule_instant_at(now, false)));
            EXPECT_EQ(made.next_s * 1000, c.delay);
            EXPECT_EQ(made.actions.size(), now < clock_set_after ? 0u : 1u);
            ::testing::internal::CaptureStderr();
            applier.enforce();
            const std::string log = ::testing::internal::GetCapturedStderr();
            EXPECT_EQ(contains(log, "need offset 0"), c.decides) << c.time;
            EXPECT_EQ(contains(log, "extcc next check is"), c.time >= clock_set_after);
            EXPECT_EQ(store.rules().times.hosts().front().action,
                      c.time < clock_set_after ? not_evaluated : scheduled);
        }
    }
    uloop_done();
}

// The timer that the system cancels when the clock is set, told by the kernel; nothing without one.
std::string clock_timer(int &fd) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
        std::ostringstream text;
        text << std::ifstream(entry.path()).rdbuf();
        fd = std::atoi(entry.path().filename().c_str());
        if (contains(text.str(), "clockid: 0"))
            return text.str();
    }
    return "";
}

struct setting_counter {
    void set() { times++; }
    int times = 0;
};

// Nobody can set the machine's clock here; a timer that runs out looks the same to the loop.
TEST(ClockWatch, TellsThatTheClockWasSetAndGoesOnWatching) {
    uloop_init();
    int fd = -1;
    {
        setting_counter counter;
        clock_watch watch(bind<&setting_counter::set>(counter));
        watch.start();
        for (int told = 0; told < 3; told++) {
            EXPECT_TRUE(contains(clock_timer(fd), "settime flags: 03"))
                << told;  // absolute, cancelled on set
            uloop_run_timeout(0);
            EXPECT_EQ(counter.times, told);
            const itimerspec at_once{{}, {0, 1}};
            ASSERT_EQ(timerfd_settime(fd, 0, &at_once, nullptr), 0);
            uloop_run_timeout(100);
        }
        EXPECT_EQ(counter.times, 3);
    }
    EXPECT_EQ(clock_timer(fd), "");
    uloop_done();
}

}  // namespace
}  // namespace arvok::access
