// The rule files as they may be found after years, and the rules that memory holds then.

#include "extcc/rules.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/clock.h"
#include "common/text.h"
#include "context.h"
#include "extcc/schedule.h"
#include "utask/utask.h"

namespace arvok {
namespace {

std::time_t now;

class Rules : public ::testing::Test {
  protected:
    void SetUp() override {
        g_ctx = {};
        folder_ = std::filesystem::temp_directory_path() / ("rules-" + std::to_string(getpid()) + "/");
        std::filesystem::create_directory(folder_);
        path_ = folder_.string();
        rule_folder = path_.c_str();
    }
    void TearDown() override {
        clear_rules();
        std::filesystem::remove_all(folder_);
    }
    void write(const char *name, const std::string &text) {
        std::ofstream(folder_ / name, std::ios::binary) << text;
    }
    std::string read(const char *name) {
        std::ostringstream text;
        text << std::ifstream(folder_ / name, std::ios::binary).rdbuf();
        return text.str();
    }
    // "MAC(enable mode start-end ...)" of every host, newest first.
    static std::string schedules() {
        std::string all;
        for (const timer_host &host : g_ctx.extcc.timer_hosts) {
            all += std::string(host.mac) + "(";
            for (const schedule_rule &rule : host.rules)
                all += std::to_string(rule.enable) + " " + std::to_string(rule.mode) + " " + rule.start +
                       "-" + rule.end + ";";
            all += ")";
        }
        return all;
    }
    static std::string parents() {
        std::string all;
        for (const parent_rule &rule : g_ctx.extcc.parent_rules)
            all += std::string(rule.mac) + " " + std::to_string(rule.flags) + " " +
                   std::to_string(rule.internet) + " " + std::to_string(rule.down_limit) + " " +
                   std::to_string(rule.up_limit) + ";";
        return all;
    }

    std::filesystem::path folder_;
    std::string path_;
};

TEST_F(Rules, WhatAScheduleFileHoldsIsTakenLineByLine) {
    const struct {
        std::string file;
        const char *rules;
    } cases[] = {
        {"", ""},
        {"A|0|8:00|9:00|1|c|g\nB|7|22:00|06:00|0|nocid|\n", "B(0 7 22:00-06:00;)A(1 0 8:00-9:00;)"},
        {"A|0|8:00|9:00|1|c|g\na|1|10:00|11:00|1|c|g\n", "A(1 1 10:00-11:00;1 0 8:00-9:00;)"},
        {"A|0|8:00|9:00|1|c|g", "A(1 0 8:00-9:00;)"},  // cut within the last line
        {"A|0|8:00|9:\nB|1|8:00|9:00|1|c|g\n", "B(1 1 8:00-9:00;)A(0 0 8:00-9:\n;)"},
        {"A\n", "A\n(0 0 -;)"},
        {"|||||\n", "(0 0 -;)"},
        {"A||8:00|9:00|1|c|g\n", "A(0 0 -;)"},  // an empty field ends the scan
        {"0123456789ABCDEFGH|0|8:00|9:00|1|c|g\n", "0123456789ABCDE(0 0 -;)"},
        {"A|x|8:00:00:00|9:00|1|c|g\n", "A(0 0 8:00:00-;)"},
        {"A|300|8:00|9:00|99|c|g\n", "A(99 44 8:00-9:00;)"},  // bytes
        {std::string("A|0|8:00\0|9:00|1|c|g\n", 21), "A(0 0 8:00-;)"},
        {std::string(255, 'x') + "A|0|8:00|9:00|1|c|g\n", "A(1 0 8:00-9:00;)xxxxxxxxxxxxxxx(0 0 -;)"},
    };
    for (const auto &c : cases) {
        write(schedule_file, c.file);
        load_rules();
        EXPECT_EQ(schedules(), c.rules) << &c - cases;
        EXPECT_EQ(g_ctx.extcc.timer_index.size(), g_ctx.extcc.timer_hosts.size());
    }
    std::filesystem::remove(folder_ / schedule_file);
    load_rules();
    EXPECT_EQ(schedules(), "");
}

TEST_F(Rules, BlockingAndRatesComeBackReversed) {
    write(parent_file, "A|3|0|10|20\nB|1|9|1|2\nC|2|1|5|6\nA|2|2|0|0\n1234567890123456|2|0|0|0\nD|x\n");
    load_rules();
    EXPECT_EQ(parents(), "D 0 0 0 0;123456789012345 0 0 0 0;A 2 2 0 0;C 2 1 0 0;B 1 0 1 2;A 3 0 10 20;");
    EXPECT_EQ(_find_parent_rule("a")->internet, 2u);  // the newest
    _save_pr_cfg();
    EXPECT_EQ(read(parent_file),
              "D|0|0|0|0\n123456789012345|0|0|0|0\nA|2|2|0|0\nC|2|1|0|0\nB|1|0|1|2\nA|3|0|10|20\n");
    drop_parent_flag(parent_internet);
    EXPECT_EQ(parents(), "D 0 0 0 0;123456789012345 0 0 0 0;B 1 0 1 2;A 1 0 10 20;");
    EXPECT_EQ(_find_parent_rule("A")->up_limit, 20u);
    EXPECT_EQ(_find_parent_rule("C"), nullptr);
    EXPECT_EQ(_find_parent_rule(nullptr), nullptr);
    rule_folder = "/nowhere/";
    ::testing::internal::CaptureStderr();
    _save_pr_cfg();
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                  "[ERROR] /nowhere/extcc-lhpc.cfg: failed to save _save_pr_cfg No such file or directory\n"),
              std::string::npos);
}

TEST_F(Rules, LinesAreRemovedByTheirText) {
    const std::string file = "AB12|0|1:00|2:00|1|c|g\nab12|0|1:00|2:00|1|c|g\nCD34|0|1:00|2:00|1|AB12|g\n";
    const struct {
        const char *mac;
        std::string left;
    } cases[] = {
        {"EF56", file}, {"AB12", "ab12|0|1:00|2:00|1|c|g\n"}, {"CD34", file.substr(0, 46)}, {nullptr, ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        write(schedule_file, file);
        _remove_timer_lines(c.mac);
        EXPECT_EQ(read(schedule_file), c.left) << text_or_empty(c.mac);
        EXPECT_FALSE(std::filesystem::exists(folder_ / "extcc-lht.cfg.bk"));
    }
    // Neither a zero within a line nor a disk that is full costs the other lines.
    const std::string odd = std::string("AB|0|8:0\0|9:00\n", 15) + "CD|0|8:00|9:00|1|c|g\nEF|0\n";
    write(schedule_file, odd);
    _remove_timer_lines("EF");
    EXPECT_EQ(read(schedule_file), odd.substr(0, odd.size() - 5));
    std::filesystem::create_symlink("/dev/full", folder_ / "extcc-lht.cfg.bk");
    _remove_timer_lines("CD");
    EXPECT_EQ(read(schedule_file), odd.substr(0, odd.size() - 5));
    std::filesystem::remove(folder_ / schedule_file);
    _remove_timer_lines("AB12");
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Rules, AHostIsFoundWhateverTheCaseAndForgottenWhole) {
    _add_mac_to_list("02c0ffee0001", "8:00", "9:00", 1, 0);
    _add_mac_to_list("02C0FFEE0001", "10:00", "11:00", 1, 1);
    _add_mac_to_list("02C0FFEE0002", "8:00", "9:00", 1, 0);
    EXPECT_EQ(_find_timer_host("02C0ffee0001")->rules.size(), 2u);
    remove_timer_host("02C0FFEE0001");
    EXPECT_EQ(_find_timer_host("02c0ffee0001"), nullptr);
    remove_timer_host("02C0FFEE0009");
    EXPECT_EQ(schedules(), "02C0FFEE0002(1 0 8:00-9:00;)");
}

TEST_F(Rules, NothingIsEvaluatedBeforeTheClockIsSet) {
    ::testing::internal::CaptureStderr();
    uloop_init();
    wall_clock = [] { return now; };
    const struct {
        std::time_t time;
        int delay;
        std::int32_t decided;
    } cases[] = {
        {0, 60000, -1}, {1590969599, 60000, -1}, {1590969600, 57600000, -1}, {1590969601, 57599000, 0}};
    setenv("TZ", "CST-8", 1);
    tzset();
    extcc_init();
    _add_mac_to_list("02C0FFEE0001", "00:00", "24:00", 1, 0);
    for (const auto &c : cases) {
        now = c.time;
        uloop_timeout_cancel(&g_ctx.extcc.lanhost_timer);
        extcc_run();
        const int left = uloop_timeout_remaining(&g_ctx.extcc.lanhost_timer);
        EXPECT_LE(left, c.delay) << c.time;
        EXPECT_GT(left, c.delay - 1000) << c.time;
        EXPECT_EQ(g_ctx.extcc.tz_offset_state, c.decided) << c.time;
        EXPECT_EQ(g_ctx.extcc.timer_hosts.front().action, c.time < clock_set_after ? 0 : access_scheduled);
    }
    extcc_done();
    uloop_done();
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("extcc next check is 57600s (~16h0m) later\n"), std::string::npos) << log;
}

}  // namespace
}  // namespace arvok
