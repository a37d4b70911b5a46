// What sequences of commands about LAN hosts come to.

#include <gtest/gtest.h>

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

// A home of so many hosts, and the command's part that blocks them all.
std::string hosts_to_block(int count) {
    std::string all;
    device.hosts.clear();
    for (int i = 0; i < count; i++) {
        device.hosts.push_back({format("02C0FFEE01%02d", i)});
        all += format(R"(%s{"MAC":"02C0FFEE01%02d","InternetAccess":"0"})", i ? "," : "", i);
    }
    return all;
}

// The loop is blocked for one time-out more than a look may take, and the others' turn comes all the same.
TEST_F(Restrictions, AreAppliedBesideHostsThatThePlatformDoesNotAnswerFor) {
    const std::string all = hosts_to_block(40);
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

// Somebody who always wants their turn.
struct other {
    void served() {
        longest_ms = std::max(longest_ms, passed_ms() - last_ms);
        last_ms = passed_ms();
        turn.arm();
    }
    next_round turn{bind<&other::served>(*this)};
    std::int64_t last_ms = passed_ms(), longest_ms = 0;
};

TEST_F(Restrictions, AreAppliedInTurnWithOthersOnASlowPlatform) {
    const std::string all = hosts_to_block(70);
    device.write_ms = 100;
    other waiting;
    waiting.served();
    EXPECT_EQ(internet(all), saved);
    const auto blocked = [] {
        return std::count_if(device.hosts.begin(), device.hosts.end(),
                             [](const fake_host &host) { return host.access == 0; });
    };
    for (const int before = passed(); passed() < before + 8;)
        pass_ms(50);
    EXPECT_LE(waiting.longest_ms, 500);
    EXPECT_NEAR(static_cast<double>(blocked()), 50, 5);  // the rest after a while
    pass(11);
    for (int turn = 0; turn < 50; turn++)
        pass_ms(1);
    EXPECT_EQ(blocked(), 70);
}

// Two hosts whose records nobody answers for, and one behind them.
class Silence : public Restrictions {
  protected:
    void SetUp() override {
        Restrictions::SetUp();
        device.hosts = {{"02C0FFEE0001"}, {"02C0FFEE0002"}, {"02C0FFEE0003"}};
        device.silent_hosts = 3;
        const char *rest =
            R"(,{"MAC":"02C0FFEE0002","InternetAccess":"0"},{"MAC":"02C0FFEE0003","InternetAccess":"0"})";
        EXPECT_EQ(internet(x_is(0) + rest), saved);
    }
    // Second by second; which records were written meanwhile.
    std::vector<unsigned> in(int seconds) {
        device.written.clear();
        for (const int end = passed() + seconds; passed() < end;)
            pass(1);
        return device.written;
    }
    static std::size_t count(const std::vector<unsigned> &written, unsigned host) {
        return static_cast<std::size_t>(std::count(written.begin(), written.end(), host));
    }
};

TEST_F(Silence, OfSomeHostsCostsTheOthersNothing) {
    // There was no time for the third. It waits, though somebody comes, and is first then.
    EXPECT_EQ(in(1), (std::vector<unsigned>{1, 2}));
    on_->host_appeared();
    EXPECT_EQ(in(5), std::vector<unsigned>{});
    EXPECT_EQ(in(9), (std::vector<unsigned>{1, 3, 2}));
    in(60);
    device.silent_hosts = 2;
    in(60);
    EXPECT_EQ(device.hosts[2].access, 0);
    // Each of the others has its own pauses, up to five minutes.
    in(600);
    const auto written = in(1800);
    for (const unsigned host : {1, 2, 3})
        EXPECT_NEAR(static_cast<double>(count(written, host)), host < 3 ? 6 : 0, host < 3 ? 1 : 0) << host;
}

TEST_F(Silence, IsNotBrokenBeforeItsTimeWhoeverCalls) {
    in(900);
    while (in(1).empty()) {
    }
    in(20);
    device.written.clear();
    for (int call = 0; call < 20; call++) {
        on_->host_appeared();
        pass(2);
    }
    EXPECT_TRUE(device.written.empty());
    // What is wanted anew does not wait for what was refused.
    EXPECT_EQ(internet(x_is(1)), saved);
    pass(1);
    EXPECT_EQ(device.written, std::vector<unsigned>{1});
    EXPECT_EQ(internet(x_is(1)), saved);
    pass(1);
    EXPECT_EQ(device.written, std::vector<unsigned>{1});
    device.silent_hosts = 0;
    in(300);
    for (const fake_host &host : device.hosts)
        EXPECT_EQ(host.access, host.mac == "02C0FFEE0001" ? 1 : 0);
}

// Once the first was not answered for, the gate lets nobody ask for the others in that turn.
TEST_F(Silence, IsHeldAgainstThoseOnlyWhoWereTried) {
    const platform::gate gate;
    device.silent_hosts = 1;
    EXPECT_EQ(in(1), (std::vector<unsigned>{1, 2, 3}));
    EXPECT_EQ(in(12), std::vector<unsigned>{1});
}

TEST_F(Silence, OfTheListHasItsOwnPauses) {
    in(60);
    device.lists_hosts = false;
    on_->host_appeared();
    const int calls = device.calls;
    in(600);
    EXPECT_NEAR(device.calls - calls, 7, 1);
    device.lists_hosts = true;
    device.silent_hosts = 0;
    EXPECT_EQ(in(301), (std::vector<unsigned>{1, 2, 3}));
}

// Two hundred milliseconds after the last of some, and at the latest a second after the first.
TEST_F(Restrictions, AreAppliedWhenHostsHaveCome) {
    EXPECT_EQ(internet(x_is(1)), saved);
    pass_ms(100);
    on_->host_appeared();
    pass_ms(150);
    EXPECT_EQ(device.hosts[0].access, 0);
    pass_ms(60);
    EXPECT_EQ(device.hosts[0].access, 1);
    EXPECT_EQ(internet(x_is(2)), saved);
    for (int call = 0; call < 6; call++) {
        on_->host_appeared();
        pass_ms(150);
    }
    EXPECT_EQ(device.hosts[0].access, 1);
    on_->host_appeared();
    pass_ms(110);
    EXPECT_EQ(device.hosts[0].access, 2);
    const int calls = device.calls;
    pass(2);
    EXPECT_EQ(device.calls, calls);
}

// Who changes a record afterwards may: only a command about restrictions or an arrival asks for them.
TEST_F(Restrictions, AreLeftAloneByWhatIsNotAboutThem) {
    device.hosts.push_back({"02C0FFEE0003"});
    EXPECT_EQ(internet(x_is(0)), saved);
    pass(1);
    device.hosts[0].access = 1;
    const auto is_left = [](int seconds) {
        const int calls = device.calls;
        pass(seconds);
        EXPECT_GT(device.calls, calls);  // somebody has looked
        EXPECT_EQ(device.hosts[0].access, 1);
    };
    EXPECT_EQ(ask("SET_LANHOST_TIMER", R"({"MAC":"02C0FFEE0003","Info":[
        {"Mode":"0","StartTime":"12:10","EndTime":"12:20","Enable":"1"}]})"),
              saved);
    is_left(1);
    is_left(600);
    EXPECT_EQ(device.hosts[1].access, 1);
    on_->look_at_clock();
    EXPECT_EQ(device.hosts[0].access, 1);
    EXPECT_EQ(ask("SET_LANHOST_TIMER", R"({"MAC":"02C0FFEE0003","Info":[]})"), saved);
    is_left(1);
    arrival();
    EXPECT_EQ(device.hosts[0].access, 0);
}

// A command that the disk refuses leaves nothing to be made good: the file is as it was.
TEST_F(Restrictions, ThatCannotBeStoredAreRefusedOnce) {
    device.hosts.clear();
    put({{"extcc-lhf.cfg", "02C0FFEE0002\n"}});
    restart();
    take_log();
    disk = {.failing = 0, .error = ENOSPC, .repeated = true};
    EXPECT_EQ(ask("SET_LANHOST_TIMER", R"({"MAC":"02C0FFEE0001","Info":[]})"),
              R"({"FailReason":"save failed","Status":"-1"})");
    arrival();
    pass(60);
    disk = {};
    arrival();
    const std::string log = take_log();
    EXPECT_TRUE(contains(log, "[ERROR]"));
    EXPECT_EQ(log.find("[ERROR]"), log.rfind("[ERROR]")) << log;
    EXPECT_EQ(content(), (files{{"extcc-lhf.cfg", "02C0FFEE0002\n"}}));
}

}  // namespace
}  // namespace arvok::access
