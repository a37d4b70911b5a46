// The rule files as they may be found after years, and the rules that memory holds then.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "access/restrictions.h"
#include "access/scheduler.h"
#include "access/schedules.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char schedule_file[] = "extcc-lht.cfg", restriction_file[] = "extcc-lhpc.cfg";

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
            for (const schedule_rule &rule : host.rules)
                text += format("%u %u %s-%s;", rule.enable, rule.mode, rule.start.c_str(), rule.end.c_str());
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

TEST_F(Rules, WhatAScheduleFileHoldsIsTakenLineByLine) {
    const struct {
        std::string file;
        const char *rules;
    } cases[] = {
        {"A|0|8:00|9:00|1|c|g\nB|7|22:00|06:00|0|nocid|\n", "B(0 7 22:00-06:00;)A(1 0 8:00-9:00;)"},
        {"A|0|8:00|9:00|1|c|g\na|1|10:00|11:00|1|c|g\n", "A(1 1 10:00-11:00;1 0 8:00-9:00;)"},
        {"A|0|8:00|9:\nB|1|8:00|9:00|1|c|g\n", "B(1 1 8:00-9:00;)A(0 0 8:00-9:\n;)"},
        {"|||||\n", "(0 0 -;)"},
        {"A||8:00|9:00|1|c|g\n", "A(0 0 -;)"},  // an empty field ends the scan
        {"0123456789ABCDEFGH|0|8:00|9:00|1|c|g\n", "0123456789ABCDE(0 0 -;)"},
        {"A|300|8:00|9:00|99|c|g\n", "A(99 44 8:00-9:00;)"},  // bytes
        {std::string("A|0|8:00\0|9:00|1|c|g\n", 21), "A(0 0 8:00-;)"},
        {std::string(255, 'x') + "A|0|8:00|9:00|1|c|g\n", "A(1 0 8:00-9:00;)xxxxxxxxxxxxxxx(0 0 -;)"},
    };
    for (const auto &c : cases) {
        write(schedule_file, c.file);
        EXPECT_EQ(told(schedules(folder_)), c.rules) << &c - cases;
    }
}

TEST_F(Rules, BlockingAndRatesComeBackReversed) {
    write(restriction_file, "A|3|0|10|20\nB|1|9|1|2\nC|2|1|5|6\nA|2|2|0|0\n1234567890123456|2|0|0|0\nD|x\n");
    restrictions all(folder_);
    EXPECT_EQ(told(all), "D 0 0 0 0;123456789012345 0 0 0 0;A 2 2 0 0;C 2 1 0 0;B 1 0 1 2;A 3 0 10 20;");
    EXPECT_TRUE(all.blocks("c"));
    EXPECT_FALSE(all.blocks("A"));  // by its newest
    all.save();
    EXPECT_EQ(read(restriction_file),
              "D|0|0|0|0\n123456789012345|0|0|0|0\nA|2|2|0|0\nC|2|1|0|0\nB|1|0|1|2\nA|3|0|10|20\n");
    all.drop(restricts_internet);
    EXPECT_EQ(told(all), "D 0 0 0 0;123456789012345 0 0 0 0;B 1 0 1 2;A 1 0 10 20;");
    all.entry_with(restricts_internet, "a").internet = 1;
    EXPECT_EQ(told(all), "D 0 0 0 0;123456789012345 0 0 0 0;B 1 0 1 2;A 3 1 10 20;");
    all.entry_with(restricts_rate, "1234567890123456").up_limit = 7;
    EXPECT_TRUE(contains(told(all), ";123456789012345 1 0 0 7;"));
}

TEST_F(Rules, AScheduleIsRemovedFromMemoryByItsHostAndFromTheFileByItsText) {
    const std::string file = "AB12|0|1:00|2:00|1|c|g\nab12|0|1:00|2:00|1|c|g\nCD34|0|1:00|2:00|1|AB12|g\n";
    const struct {
        const char *mac;
        std::string left;
        const char *hosts;
    } cases[] = {
        {"EF56", file, "CD34(1 0 1:00-2:00;)AB12(1 0 1:00-2:00;1 0 1:00-2:00;)"},
        {"AB12", "ab12|0|1:00|2:00|1|c|g\n", "CD34(1 0 1:00-2:00;)"},
        {"CD34", file.substr(0, 46), "AB12(1 0 1:00-2:00;1 0 1:00-2:00;)"},
        {"", "", "CD34(1 0 1:00-2:00;)AB12(1 0 1:00-2:00;1 0 1:00-2:00;)"},
    };
    for (const auto &c : cases) {
        write(schedule_file, file);
        schedules all(folder_);
        all.remove(c.mac);
        EXPECT_EQ(read(schedule_file), c.left) << c.mac;
        EXPECT_EQ(told(all), c.hosts) << c.mac;
        EXPECT_EQ(all.host_to_free(), c.mac);
        EXPECT_FALSE(std::filesystem::exists(folder_ / "extcc-lht.cfg.bk"));
    }
    // Neither a zero within a line nor a disk that is full costs the other lines.
    const std::string odd = std::string("AB|0|8:0\0|9:00\n", 15) + "CD|0|8:00|9:00|1|c|g\nEF|0\n";
    write(schedule_file, odd);
    schedules all(folder_);
    all.remove("EF");
    EXPECT_EQ(read(schedule_file), odd.substr(0, odd.size() - 5));
    std::filesystem::create_symlink("/dev/full", folder_ / "extcc-lht.cfg.bk");
    all.remove("CD");
    EXPECT_EQ(read(schedule_file), odd.substr(0, odd.size() - 5));
}

TEST_F(Rules, WhatIsAddedFollowsAFileThatWasCut) {
    write(schedule_file, "AB|0|8:0");
    schedules all(folder_);
    {
        schedules::addition file(all);
        file.add("02C0FFEE0001\n234567", {1, 7, "8:00", "9:00"}, "nocid", "g\n");
        file.add("02c0ffee0001\n23", {0, 0, "10:00", "11:00"}, "c", "");
    }
    EXPECT_EQ(read(schedule_file),
              "AB|0|8:0\n02C0FFEE0001 234567|7|8:00|9:00|1|nocid|g \n"
              "02c0ffee0001 23|0|10:00|11:00|0|c|\n");
    EXPECT_EQ(told(all), "02C0FFEE0001\n23(0 0 10:00-11:00;1 7 8:00-9:00;)AB(0 0 8:0-;)");
    EXPECT_EQ(all.find("02C0ffee0001\n23")->rules.size(), 2u);
}

TEST_F(Rules, NothingIsEvaluatedBeforeTheClockIsSet) {
    uloop_init();
    setenv("TZ", "CST-8", 1);
    tzset();
    write(schedule_file, "02C0FFEE0001|0|00:00|24:00|1|c|g\n");
    schedules times(folder_);
    restrictions limits(folder_);
    scheduler applier(times, limits, [] { return now; });
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
        ::testing::internal::CaptureStderr();
        applier.apply_schedules();
        const std::string log = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(contains(log, "need offset 0"), c.decides) << c.time;
        EXPECT_EQ(contains(log, format("extcc next check is %ds (~%dh%dm) later\n", c.delay / 1000,
                                       c.delay / 3600000, c.delay / 60000 % 60)),
                  c.time >= clock_set_after);
        const int left = applier.until_schedules();
        EXPECT_LE(left, c.delay) << c.time;
        EXPECT_GT(left, c.delay - 1000) << c.time;
        EXPECT_EQ(times.hosts().front().action, c.time < clock_set_after ? not_evaluated : scheduled);
    }
    uloop_done();
}

}  // namespace
}  // namespace arvok::access
