// What sequences of commands about LAN hosts come to.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/text.h"
#include "rule_fixture.h"

namespace arvok::access {
namespace {

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

// Each system call of telling who is free fails once, with and without others who are not.
TEST_F(Restrictions, AreEndedWhateverTheDiskRefuses) {
    for (const char *others : {"", "02C0FFEE0007\n"}) {
        for (int n = 0;; n++) {
            put({{"extcc-lhf.cfg", std::string("02C0FFEE0001\n") + others}});
            device.hosts[0].access = 0;
            on_.emplace([] { return now; }, folder_);
            take_log();
            disk = {.failing = n, .error = EIO};
            on_->start();
            const bool reached = disk.calls > n;
            disk = {};
            EXPECT_EQ(device.hosts[0].access, 2) << n;
            const bool refused = contains(take_log(), "[ERROR] extcc: failed to save");
            EXPECT_EQ(content()["extcc-lhf.cfg"] == others, !refused) << n;
            pass(11);
            EXPECT_EQ(content()["extcc-lhf.cfg"], others) << n;
            if (!reached)
                break;
        }
    }
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

}  // namespace
}  // namespace arvok::access
