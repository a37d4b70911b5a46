// What sequences of commands about the guest network come to.

#include <gtest/gtest.h>

#include <cerrno>

#include "base/text.h"
#include "rule_fixture.h"

namespace arvok::access {
namespace {

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

// The device starts with a date from before, be it a year ago, and gets the time inside the window or behind.
TEST_F(Guests, AnOldDateSaysNothingOfTheClosingTime) {
    for (const std::time_t old : {std::time_t{0}, wednesday_noon - 365 * 86400, wednesday_noon - 20}) {
        for (const int later : {600, 4000}) {
            const auto begin = [&](bool is_open) {
                now = wednesday_noon;
                close_in(60);
                device.guests[5] = is_open;
                now = old;
                restart();
                EXPECT_EQ(device.guests[5], is_open);  // nothing is known yet
            };
            // What a command has closed stays closed, also when it was closed before.
            for (const bool was_open : {false, true}) {
                begin(was_open);
                EXPECT_EQ(set(false), done);
                clock_is_set(wednesday_noon + later);
                EXPECT_FALSE(device.guests[5]);
            }
            // A new password does not open the network for good.
            begin(true);
            EXPECT_EQ(set(true), done);
            clock_is_set(wednesday_noon + later);
            EXPECT_EQ(device.guests[5], later < 3600);
            pass(3600);
            EXPECT_FALSE(device.guests[5]);
        }
    }
    // A clock that was set back by little is waited for.
    now = wednesday_noon;
    close_in(60);
    device.guests[5] = false;
    clock_is_set(wednesday_noon - 5);
    EXPECT_FALSE(device.guests[5]);
    pass(6);
    EXPECT_TRUE(device.guests[5]);
}

// Each call of the disk fails once, or all do for a while, when the time has come, and with each question or
// command.
TEST_F(Guests, WhatTheDiskDoesNotTellIsNotTakenForNothing) {
    const files index_alone = content();
    const char *asked[][2] = {
        {"", ""},
        {"GET_GUEST_WIFI", "{}"},
        {"DELETE_GUEST_WIFI", "{}"},
        {"SET_GUEST_WIFI", R"({"Info":[{"SSID":"s","PWD":"p","ENCRYPT":"5","Enable":"0","SSIDHide":"0"}]})"},
        {"SET_GUEST_WIFI_CLOSE_TIMER", R"({"Info":[{"LastTime":"20","Enable":"1"}]})"}};
    for (const auto &[name, message] : asked) {
        for (const bool for_good : {false, true}) {
            for (int n = 0;; n++) {
                SCOPED_TRACE(format("%s %d %d", name, for_good, n));
                put(index_alone);
                device.guests = {{5, true}};
                now = wednesday_noon;
                close_in(10);
                const files before = content();
                disk = {.failing = n, .error = EIO, .repeated = for_good};
                const std::string answer = *name ? ask(name, message) : "";
                const bool refused = contains(answer, R"({"FailReason":"save failed","Status":"-1"})");
                EXPECT_TRUE(!*name || contains(name, "GET") || n > 1 || refused);
                if (!*name)
                    pass(600);
                const bool reached = disk.calls > n;
                disk = {};
                if (refused || contains(name, "GET")) {
                    EXPECT_EQ(content(), before);
                    EXPECT_TRUE(device.guests[5]);
                }
                // Whatever was refused: twenty minutes later it is closed, or there is none.
                pass(1200);
                pass(11);
                EXPECT_FALSE(device.guests[5]);
                if (!reached || (for_good && n > 0))
                    break;
            }
        }
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
    // Nor does one that the disk refuses come to pass: at the next start the closing time would undo it.
    pass(3600);
    EXPECT_FALSE(device.guests[5]);
    for (int n = 0;; n++) {
        disk = {.failing = n, .error = EIO};
        const std::string answer = set(true);
        const bool reached = disk.calls > n;
        disk = {};
        EXPECT_EQ(answer == done, !is_closing()) << n;
        EXPECT_EQ(answer == done, device.guests[5]) << n;
        if (!reached)
            break;
        put(before);
        device.guests[5] = false;
    }
    EXPECT_FALSE(is_closing());
}

// What a question keeps or forgets of the network is no part of its answer, and is done with the next one.
TEST_F(Guests, AQuestionIsAnsweredWhateverTheDiskRefuses) {
    for (const bool there : {true, false}) {
        const files before = there ? files{} : files{{"extcc-gst-idx.cfg", "5"}};
        const files after = there ? files{{"extcc-gst-idx.cfg", "5"}} : files{};
        device.guests.clear();
        if (there)
            device.guests[5] = true;
        put(before);
        const std::string answer = ask("GET_GUEST_WIFI", "{}");
        EXPECT_EQ(contains(answer, "GuestSSID"), there);
        EXPECT_EQ(content(), after);
        for (int n = 0;; n++) {
            put(before);
            take_log();
            disk = {.failing = n, .error = ENOSPC};
            EXPECT_EQ(ask("GET_GUEST_WIFI", "{}"), answer) << n;
            const bool reached = disk.calls > n;
            disk = {};
            files left = content();
            left.erase("extcc-gst-idx.cfg.bk");
            EXPECT_EQ(left, contains(take_log(), "extcc-gst-idx.cfg") ? before : after) << n;
            ask("GET_GUEST_WIFI", "{}");
            EXPECT_EQ(content(), after) << n;
            if (!reached)
                break;
        }
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
