// What sequences of commands about rules come to.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "base/text.h"
#include "rule_fixture.h"

namespace arvok::access {
namespace {

class RuleCommands : public Commands {
  protected:
    void SetUp() override {
        Commands::SetUp();
        begin({"", ""});
        put({});
        device.hosts = {{"02C0FFEE0001", 0}};
        on_.emplace([] { return now; }, folder_);
    }
    void TearDown() override {
        on_.reset();
        Commands::TearDown();
    }
    std::string ask(const char *name, const std::string &message) {
        return answer_of(*on_, {name, message.c_str()});
    }
    void arrival() {
        on_->host_appeared();
        pass(1);
    }
    void restart() {
        on_.reset();
        on_.emplace([] { return now; }, folder_);
        on_->start();
        arrival();
    }

    std::optional<rules> on_;
};

class Restrictions : public RuleCommands {
  protected:
    std::string internet(const std::string &hosts) {
        return ask("SET_LANHOST_INTERNET", "{\"Info\":[" + hosts + "]}");
    }
    std::string rates(const std::string &hosts) {
        return ask("SET_LANHOST_BANDWIDTH", "{\"Info\":[" + hosts + "]}");
    }
    static std::string x_is(int access) {
        return format(R"({"MAC":"02C0FFEE0001","InternetAccess":"%d"})", access);
    }

    const std::string wrong = R"({"MAC":"02C0FFEE0002","InternetAccess":"9"})";
    const std::string saved = R"({"Status":"0","FailReason":""})";
};

// What stands before a fault is stored and applied like anything else: the same after a restart.
TEST_F(Restrictions, BeforeAFaultAreStoredAndApplied) {
    const std::string invalid = R"({"FailReason":"invalid InternetAccess","Status":"-1"})";
    EXPECT_EQ(internet(wrong), invalid);
    EXPECT_EQ(content(), files{});
    EXPECT_EQ(internet(x_is(0) + "," + wrong), invalid);
    EXPECT_EQ(content(), (files{{"extcc-lhpc.cfg", "02C0FFEE0001|2|0|0|0\n"}}));
    EXPECT_EQ(internet(x_is(2) + "," + wrong), invalid);
    const char *schedule =
        R"({"MAC":"02C0FFEE0001","Info":[{"Mode":"0","StartTime":"0:00","EndTime":"24:00","Enable":"1"}]})";
    EXPECT_EQ(ask("SET_LANHOST_TIMER", schedule), saved);
    for (int run = 0; run < 2; run++) {
        restart();
        EXPECT_EQ(device.hosts[0].access, 1);
        device.hosts[0].access = 2;
    }
    EXPECT_EQ(
        answer_of(*on_,
                  {"SET_LANHOST_BANDWIDTH",
                   R"({"Info":[{"MAC":"02C0FFEE0001","MaxUSBandwidth":"7","MaxDSBandwidth":"8"},{}]})"}),
        R"({"FailReason":"MAC not found","Status":"-202"})");
    pass(1);
    EXPECT_EQ(device.hosts[0].up, 7);
    EXPECT_EQ(content()["extcc-lhpc.cfg"], "02C0FFEE0001|3|2|8|7\n");
    // Also before one, what cannot be stored is not there.
    disk.error = ENOSPC;
    disk.failing = disk.calls + 4;
    EXPECT_EQ(
        answer_of(*on_,
                  {"SET_LANHOST_BANDWIDTH",
                   R"({"Info":[{"MAC":"02C0FFEE0001","MaxUSBandwidth":"1","MaxDSBandwidth":"1"},{}]})"}),
        R"({"FailReason":"save failed","Status":"-1"})");
    arrival();
    EXPECT_EQ(device.hosts[0].up, 7);
}

TEST_F(Restrictions, FreeAHostThatIsAwayUnlessItIsBlockedLater) {
    device.hosts.clear();
    for (const bool blocked : {false, true}) {
        EXPECT_EQ(internet(x_is(2)), saved);
        arrival();
        EXPECT_EQ(content()["extcc-lhf.cfg"], "02C0FFEE0001\n");
        EXPECT_EQ(blocked ? internet(x_is(0)) : saved, saved);
        EXPECT_EQ(internet(""), saved);
        pass(1);
        EXPECT_EQ(content().contains("extcc-lhf.cfg"), !blocked);
        device.hosts = {{"02C0FFEE0001", 0}};
        restart();
        EXPECT_EQ(device.hosts[0].access, blocked ? 0 : 2);
        device.hosts.clear();
    }
    // One without a MAC would wait for ever.
    EXPECT_EQ(internet(R"({"MAC":"","InternetAccess":"2"})"), saved);
    pass(1);
    EXPECT_FALSE(content().contains("extcc-lhf.cfg"));
}

// The last rule is gone by then; nothing but the file asks for another look.
TEST_F(Restrictions, ThatAFailingDiskHasForgottenToEndAreEndedLater) {
    EXPECT_EQ(internet(x_is(2)), saved);
    take_log();
    disk = {.failing = 0, .error = EIO, .repeated = true};
    for (const int seconds : {1, 5, 6, 21})
        pass(seconds);
    EXPECT_EQ(device.hosts[0].access, 2);
    const std::string log = take_log();
    EXPECT_TRUE(contains(log, "[ERROR]"));
    EXPECT_EQ(log.find("[ERROR]"), log.rfind("[ERROR]"));
    EXPECT_TRUE(content().contains("extcc-lhf.cfg"));
    disk = {};
    pass(41);
    EXPECT_FALSE(content().contains("extcc-lhf.cfg"));
}

// The loop is blocked for one time-out more than a look may take, and the others' turn comes all the same.
TEST_F(Restrictions, AreAppliedBesideHostsThatThePlatformDoesNotAnswerFor) {
    std::string all;
    device.hosts.clear();
    for (int i = 0; i < 40; i++) {
        device.hosts.push_back({format("02C0FFEE01%02d", i)});
        all += format(R"(%s{"MAC":"02C0FFEE01%02d","InternetAccess":"0"})", i ? "," : "", i);
    }
    device.silent_hosts = 20;
    EXPECT_EQ(internet(all), saved);
    const auto is_blocked = [](const fake_host &host) { return host.access == 0; };
    for (int look = 0; look < 20; look++) {
        const int calls = device.calls;
        pass(look == 0 ? 1 : 11);
        EXPECT_LE(device.calls - calls, look < 10 ? 4 : 24) << look;
    }
    EXPECT_EQ(std::count_if(device.hosts.begin(), device.hosts.end(), is_blocked), 20);
    device.silent_hosts = 0;
    pass(301);
    EXPECT_EQ(std::count_if(device.hosts.begin(), device.hosts.end(), is_blocked), 40);
}

TEST_F(Restrictions, AreAppliedThoughOneHostAfterAnotherCalls) {
    EXPECT_EQ(internet(x_is(1)), saved);
    for (int call = 0; call < 3; call++) {
        usleep(150000);
        on_->host_appeared();
    }
    uloop_run_timeout(0);
    EXPECT_EQ(device.hosts[0].access, 1);
}

class Guests : public RuleCommands {
  protected:
    void SetUp() override {
        RuleCommands::SetUp();
        put({{"extcc-gst-idx.cfg", "5"}});
    }
    std::string set(bool enable) {
        return ask("SET_GUEST_WIFI",
                   format(R"({"Info":[{"SSID":"s","PWD":"p","ENCRYPT":"5","Enable":"%d","SSIDHide":"0"}]})",
                          enable));
    }
    void close_in(int minutes) {
        EXPECT_EQ(ask("SET_GUEST_WIFI_CLOSE_TIMER",
                      format(R"({"Info":[{"LastTime":"%d","Enable":"1"}]})", minutes)),
                  done);
        pass(1);
    }
    // The clock is set, as the agent notices; its timers do not go on.
    void clock_is_set(std::time_t time) {
        now = time;
        on_->look_at_clock();
        pass(0);
    }
    bool is_closing() { return content().contains("extcc-gst-tmr.cfg"); }

    const std::string done = R"({"FailReason":"","Status":"0"})";
    const std::string failed = R"({"FailReason":"failed to add/set guest wifi","Status":"-102"})";
};

TEST_F(Guests, ACommandEndsTheClosingTimeThatSaysOtherwise) {
    close_in(60);
    EXPECT_EQ(set(true), done);
    EXPECT_TRUE(is_closing());
    EXPECT_EQ(set(false), done);
    EXPECT_FALSE(is_closing());
    restart();
    EXPECT_FALSE(device.guests[5]);
    // While the clock is not set, one that opens the closed network is meant; one that leaves it open is not.
    for (const bool was_open : {false, true}) {
        now = wednesday_noon;
        close_in(10);
        device.guests[5] = was_open;
        now = 0;
        restart();
        EXPECT_EQ(set(true), done);
        clock_is_set(wednesday_noon + 3600);
        EXPECT_EQ(device.guests[5], !was_open);
    }
}

TEST_F(Guests, AClosingTimeThatIsOverLeavesTheNetworkAlone) {
    close_in(10);
    pass(600);
    EXPECT_FALSE(device.guests[5]);
    device.guests[5] = true;  // by somebody else
    clock_is_set(now + 100);
    EXPECT_TRUE(device.guests[5]);
    device.guests[5] = false;
    clock_is_set(wednesday_noon + 60);
    EXPECT_TRUE(device.guests[5]);  // it is yet to be carried out
}

// The closing time is there again when the command does not come to pass, and not before.
TEST_F(Guests, ARefusedCommandLeavesTheClosingTime) {
    close_in(60);
    const files before = content();
    device.refused = device.calls + 2;
    EXPECT_EQ(set(false), R"({"FailReason":"refused","Status":"-102"})");
    EXPECT_EQ(content(), before);
    EXPECT_TRUE(device.guests[5]);
    // Nor does one that the disk refuses come to pass: what removes the file fails.
    for (int n = 0;; n++) {
        disk = {.failing = n, .error = EIO};
        const std::string answer = set(false);
        const bool reached = disk.calls > n;
        disk = {};
        if (!reached)
            break;
        EXPECT_EQ(answer == done, !is_closing()) << n;
        EXPECT_EQ(answer == done, !device.guests[5]) << n;
        put(before);
        device.guests[5] = true;
    }
}

TEST_F(Guests, WhatCannotBeReadIsNotChanged) {
    const files before = content();
    device.refused = device.calls;  // the list
    EXPECT_EQ(set(false), failed);
    EXPECT_EQ(device.guests, (std::map<unsigned, bool>{{5, true}}));
    // An interface that is not known yet must be read twice, to be put back if its index cannot be saved.
    put({});
    for (const int n : {1, 2}) {
        device.refused = device.calls + n;
        EXPECT_EQ(set(false), failed);
        EXPECT_TRUE(device.guests[5]);
        EXPECT_EQ(content(), files{});
    }
    put(before);
}

}  // namespace
}  // namespace arvok::access
