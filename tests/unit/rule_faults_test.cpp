// Commands about rules on a disk that fails, under a power that goes, and over a platform that refuses.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "base/files.h"
#include "base/text.h"
#include "rule_fixture.h"

namespace arvok::access {
namespace {

TEST_F(RuleFaults, AFileIsReplacedWholeOrNotAtAll) {
    const std::string path = folder_ + "file";
    disk = {};
    ASSERT_EQ(save_file(path, "first"), std::nullopt);
    // On the disk before it gets its name, and the name before it is said to be saved.
    EXPECT_EQ(disk.names, "open open unlink open write fsync close rename fsync close");
    for (const files &before :
         {files{}, files{{"file", "old"}}, files{{"file", "old"}, {"file.bk", "half"}}}) {
        for (const int error : {ENOSPC, EIO, EINVAL}) {
            for (int n = 0;; n++) {
                put(before);
                disk = {.failing = n, .error = error};
                const auto why = save_file(path, "the new content");
                if (disk.calls <= n)
                    break;
                // Some file systems cannot flush a folder.
                EXPECT_EQ(why.has_value(), n < 8 || (n == 8 && error != EINVAL)) << n;
                files expected = before;
                if (!why)
                    expected["file"] = "the new content";
                else
                    EXPECT_EQ(*why, std::strerror(error));
                files left = content();
                left.erase("file.bk");
                expected.erase("file.bk");
                EXPECT_EQ(left, expected) << n;
                disk = {};
                EXPECT_EQ(save_file(path, "again"), std::nullopt);
                EXPECT_EQ(content(), (files{{"file", "again"}}));
            }
        }
    }
}

TEST_F(RuleFaults, AFileIsRemovedOrNot) {
    const std::string path = folder_ + "file";
    EXPECT_EQ(remove_file(path), std::nullopt);
    EXPECT_EQ(remove_file(folder_ + "none/file"), std::nullopt);
    for (int n = 0;; n++) {
        put({{"file", "old"}});
        disk = {.failing = n, .error = EMFILE};
        const auto why = remove_file(path);
        const bool reached = disk.calls > n;
        disk = {};
        EXPECT_EQ(content(), why ? (files{{"file", "old"}}) : files{}) << n;
        if (!reached)
            break;
        EXPECT_EQ(why.has_value(), n < 4) << n;
    }
}

// Whoever put it there.
TEST_F(RuleFaults, APipeInTheFilesPlaceIsReplacedAtOnce) {
    const std::string path = folder_ + "file";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    alarm(10);
    EXPECT_EQ(save_file(path, "whole"), std::nullopt);
    alarm(0);
    EXPECT_EQ(content(), (files{{"file", "whole"}}));
}

// --- commands ---

const command commands[] = {
    {"SET_LANHOST_TIMER",
     R"({"MAC":"02C0FFEE0003","Info":[{"Mode":"0","StartTime":"0:00","EndTime":"24:00","Enable":"1"}]})"},
    {"SET_LANHOST_TIMER", R"({"MAC":"02c0ffee0001","Info":[]})"},
    {"SET_LANHOST_INTERNET", R"({"Info":[{"MAC":"02C0FFEE0002","InternetAccess":"2"}]})"},
    {"SET_LANHOST_INTERNET", R"({"Info":[{"MAC":"02C0FFEE0003","InternetAccess":"0"}]})"},
    {"SET_LANHOST_INTERNET", R"({"Info":[]})"},
    {"SET_LANHOST_BANDWIDTH",
     R"({"Info":[{"MAC":"02C0FFEE0001","MaxUSBandwidth":"7","MaxDSBandwidth":"8"}]})"},
    {"SET_GUEST_WIFI_CLOSE_TIMER", R"({"Info":[{"LastTime":"10","Enable":"1"}]})"},
    {"SET_GUEST_WIFI_CLOSE_TIMER", R"({"Info":[{"LastTime":"-1111","Enable":"0"}]})"},
    {"DELETE_GUEST_WIFI", "{}"},
    {"SET_GUEST_WIFI", R"({"Info":[{"SSID":"s","PWD":"p","ENCRYPT":"5","Enable":"1","SSIDHide":"0"}]})"},
};

TEST_F(Commands, LeaveEverythingAsItWasWhenTheDiskFails) {
    for (const command &asked : commands) {
        SCOPED_TRACE(asked.message);
        begin(asked);
        std::optional<rules> whole(
            std::in_place, [] { return now; }, folder_);
        const std::string success = answer_of(*whole, asked), dump_after = dump_of(*whole);
        const files after = content();
        const auto guests_after = device.guests;
        EXPECT_TRUE(contains(success, R"("Status":"0")"));
        whole.reset();
        int refusals = 0;
        for (const int error : {ENOSPC, EIO}) {
            for (int n = 0;; n++) {
                SCOPED_TRACE(n);
                begin(asked);
                rules on([] { return now; }, folder_);
                const std::string dump_before = dump_of(on);
                const files files_before = content();
                const auto guests_before = device.guests;
                disk = {.failing = n, .error = error};
                const std::string answer = answer_of(on, asked);
                const bool reached = disk.calls > n;
                disk = {};
                if (!reached)
                    break;
                files left = content();
                std::erase_if(left, [](const auto &file) { return file.first.ends_with(".bk"); });
                const std::string log = take_log();
                if (answer != success) {
                    refusals++;
                    EXPECT_EQ(answer, R"({"FailReason":"save failed","Status":"-1"})");
                    EXPECT_EQ(left, files_before);
                    EXPECT_EQ(dump_of(on), dump_before);
                    EXPECT_EQ(device.guests, guests_before);
                    EXPECT_EQ(device.hosts,
                              (std::vector<fake_host>{
                                  {"02C0FFEE0001", 1}, {"02C0FFEE0002", 0}, {"02C0FFEE0003", 2}}));
                    EXPECT_EQ(log.find("[ERROR]"), log.rfind("[ERROR]"));
                    EXPECT_TRUE(contains(log, std::strerror(error)));
                    EXPECT_EQ(answer_of(on, asked), success);
                    left = content();
                }
                EXPECT_EQ(left, after);
                EXPECT_EQ(dump_of(on), dump_after);
                EXPECT_EQ(device.guests, guests_after);
            }
        }
        EXPECT_GE(refusals, 2);
    }
}

TEST_F(Commands, LeaveEachFileOldOrNewWhenThePowerGoes) {
    for (const command &asked : commands) {
        SCOPED_TRACE(asked.message);
        begin(asked);
        const files before = content();
        const std::string success = answer_of(*std::make_unique<rules>([] { return now; }, folder_), asked);
        const files after = content();
        for (int n = 0, reached = 1; reached; n++) {
            SCOPED_TRACE(n);
            begin(asked);
            reached = power_goes(n, asked);
            files left = content();
            std::erase_if(left, [](const auto &file) { return file.first.ends_with(".bk"); });
            for (const auto &[name, text] : left)
                EXPECT_TRUE((before.contains(name) && before.at(name) == text) ||
                            (after.contains(name) && after.at(name) == text))
                    << name << ": " << text;
            for (const auto &[name, text] : before)
                EXPECT_TRUE(left.contains(name) || !after.contains(name)) << name;
            // A host is never neither scheduled nor to be freed when a command takes its schedule away.
            const rule_store kept(folder_);
            EXPECT_TRUE(kept.rules().times.find(host_id("02C0FFEE0001")) ||
                        kept.rules().to_free.contains(host_id("02C0FFEE0001")));
            // Nor one whose block was lifted.
            const restriction *entry = kept.rules().limits.find(host_id("02C0FFEE0002"));
            EXPECT_TRUE(!entry || entry->blocks() || kept.rules().to_free.contains(host_id("02C0FFEE0002")));
            // Whatever is left, the command can be given again.
            rules again([] { return now; }, folder_);
            EXPECT_EQ(answer_of(again, asked), success);
        }
    }
}

// Nor is one freed that a command has blocked before the power went; it may be forgotten, and stays blocked.
TEST_F(Commands, BlockAHostForGood) {
    const command block_and_free = {
        "SET_LANHOST_INTERNET",
        R"({"Info":[{"MAC":"02C0FFEE0001","InternetAccess":"0"},{"MAC":"02C0FFEE0002","InternetAccess":"2"}]})"};
    int blocked = 0;
    for (int n = 0, reached = 1; reached; n++) {
        begin(block_and_free);
        put({{"extcc-lhf.cfg", "02C0FFEE0001\n"}});
        reached = power_goes(n, block_and_free);
        device.hosts = {};
        std::optional<rules> on(
            std::in_place, [] { return now; }, folder_);
        if (!contains(answer_of(*on, {"GET_LANHOST_INTERNET", "{}"}), "02C0FFEE0001"))
            continue;
        blocked++;
        answer_of(*on, {"SET_LANHOST_INTERNET", R"({"Info":[]})"});
        on.reset();
        on.emplace([] { return now; }, folder_);
        device.hosts = {{"02C0FFEE0001", 0}};
        on->start();
        on->host_appeared();
        pass(1);
        EXPECT_EQ(device.hosts[0].access, 0) << n;
    }
    EXPECT_GT(blocked, 1);
}

// Each call of reading the files fails at first, then all do for a while: nothing of them is lost.
TEST_F(Commands, ChangeNothingOfWhatCannotBeRead) {
    for (const command &asked : commands) {
        if (contains(asked.name, "GUEST"))
            continue;
        SCOPED_TRACE(asked.message);
        begin(asked);
        const files before = content();
        const std::string success = answer_of(*std::make_unique<rules>([] { return now; }, folder_), asked);
        const files after = content();
        int unread = 0;
        for (const bool for_good : {false, true}) {
            for (int n = 0;; n++) {
                begin(asked);
                device.hosts[0].access = 2;
                disk = {.failing = n, .error = EIO, .repeated = for_good};
                rules on([] { return now; }, folder_);
                const bool reached = disk.calls > n;
                on.start();
                const bool is_unread = contains(take_log(), "[ERROR] extcc: failed to read");
                unread += is_unread;
                if (is_unread && for_good) {
                    EXPECT_EQ(answer_of(on, asked), R"({"FailReason":"save failed","Status":"-1"})");
                    EXPECT_FALSE(contains(take_log(), "failed to read"));  // it was said
                }
                disk = {};
                EXPECT_TRUE(!is_unread || content() == before);
                if (n % 2) {  // else the command itself reads what could not be read
                    pass(11);
                    EXPECT_EQ(device.hosts[0].access, 1);
                }
                EXPECT_EQ(answer_of(on, asked), success);
                EXPECT_EQ(content(), after);
                if (!reached)
                    break;
            }
        }
        EXPECT_GE(unread, 12);
    }
}

// --- the platform ---

class Refusals : public Commands {
  protected:
    // Some commands and their time; one call of the platform is refused. What the platform has in the end.
    std::pair<std::vector<fake_host>, bool> play(int refused) {
        begin({"", ""});
        device.refused = refused;
        rules on([] { return now; }, folder_);
        on.start();
        pass(1);
        for (const int n : {0, 5, 2, 1, 6}) {
            EXPECT_TRUE(contains(answer_of(on, commands[n]), R"("Status":"0")"));
            pass(1);
        }
        device.hosts.push_back({"02C0FFEE0009"});
        on.host_appeared();
        pass(11);                    // what was refused is made good
        device.hosts[0].access = 0;  // by somebody else, whom the rules leave alone
        on.host_appeared();
        pass(1);
        pass(600);
        for (const int seconds : {11, 21, 41})
            pass(seconds);
        return {device.hosts, device.guests[5]};
    }
};

TEST_F(Refusals, OfAnyOneCallAreMadeGood) {
    const auto [hosts, open] = play(-1);
    EXPECT_EQ(hosts,
              (std::vector<fake_host>{
                  {"02C0FFEE0001", 0, 7, 8}, {"02C0FFEE0002", 2}, {"02C0FFEE0003", 1}, {"02C0FFEE0009", 2}}));
    EXPECT_FALSE(open);
    const int calls = device.calls;
    EXPECT_GT(calls, 10);
    for (int n = 0; n < calls; n++) {
        const auto ended = play(n);
        EXPECT_EQ(ended.first, hosts) << n;
        EXPECT_EQ(ended.second, open) << n;
    }
}

}  // namespace
}  // namespace arvok::access
