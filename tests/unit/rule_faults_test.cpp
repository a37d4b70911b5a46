// Commands about rules on a disk that fails, under a power that goes, and over a platform that refuses.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "access/access.h"
#include "base/files.h"
#include "base/text.h"
#include "rule_seams.h"

namespace arvok::access {
namespace {

constexpr std::time_t wednesday_noon = 1795003200 - 8 * 3600;

using files = std::map<std::string, std::string>;

class RuleFaults : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/rule-faults-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = std::string(name) + "/";
        uloop_init();
    }
    void TearDown() override {
        uloop_done();
        disk = {};
        device = {};
        std::filesystem::remove_all(folder_);
    }

    files content() const {
        files found;
        for (const auto &entry : std::filesystem::directory_iterator(folder_)) {
            std::ostringstream text;
            text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
            found[entry.path().filename()] = text.str();
        }
        return found;
    }
    void put(const files &all) const {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
        for (const auto &[name, text] : all)
            std::ofstream(folder_ + name, std::ios::binary) << text;
    }

    std::string folder_;
};

TEST_F(RuleFaults, AFileIsReplacedWholeOrNotAtAll) {
    const std::string path = folder_ + "file";
    disk = {};
    ASSERT_EQ(save_file(path, "first"), std::nullopt);
    // On the disk before it gets its name, and the name before it is said to be saved.
    EXPECT_EQ(disk.names, "open open unlink open write fsync close rename fsync close");
    for (const files &before :
         {files{}, files{{"file", "old"}}, files{{"file", "old"}, {"file.bk", "half"}}}) {
        for (const int error : {ENOSPC, EIO}) {
            for (int n = 0;; n++) {
                put(before);
                disk = {.failing = n, .error = error};
                const auto why = save_file(path, "the new content");
                if (disk.calls <= n)
                    break;
                EXPECT_EQ(why.has_value(), n > 0 && n < 9) << n;
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

// --- commands ---

const struct command {
    const char *name, *message;
} commands[] = {
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

const files before_commands{{"extcc-lht.cfg", "02C0FFEE0001|0|0:00|24:00|1|c|g\n"},
                            {"extcc-lhpc.cfg", "02C0FFEE0002|2|0|0|0\n"},
                            {"extcc-gst-idx.cfg", "5"},
                            {"extcc-gst-tmr.cfg", "5\t1\t0\t0\t0\t-1111\n"}};

std::string answer_of(rules &on, const command &asked) {
    bus_message reply;
    const json::document message = json::parse(asked.message);
    EXPECT_TRUE(on.run(asked.name, message.root(), reply));
    return json_of(reply.get()).value_or("");
}

std::string dump_of(rules &on) {
    const std::string dump = answer_of(on, {"EXTCC_DUMP", "{}"});
    return dump.substr(dump.find("\"TimeRules\""));
}

class Commands : public RuleFaults {
  protected:
    // The device and its files before a command; the guest network's index may be yet to be found.
    void begin(const command &asked) {
        now = wednesday_noon;
        disk = {};
        files prepared = before_commands;
        if (std::strcmp(asked.name, "SET_GUEST_WIFI") == 0)
            prepared.erase("extcc-gst-idx.cfg");
        put(prepared);
        device = {{{"02C0FFEE0001", 1}, {"02C0FFEE0002", 0}, {"02C0FFEE0003", 2}}};
        if (prepared.contains("extcc-gst-idx.cfg"))
            device.guests[5] = true;
        take_log();
    }
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
        answer_of(*std::make_unique<rules>([] { return now; }, folder_), asked);
        const files after = content();
        for (int n = 0;; n++) {
            SCOPED_TRACE(n);
            begin(asked);
            const pid_t child = fork();
            if (child == 0) {
                rules on([] { return now; }, folder_);
                disk = {.failing = n, .error = 0};
                answer_of(on, asked);
                _exit(disk.calls > n ? 0 : 1);
            }
            int status = 0;
            waitpid(child, &status, 0);
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
            rules again([] { return now; }, folder_);  // whatever is left beside them
            EXPECT_TRUE(contains(dump_of(again), "TimeRules"));
            if (WEXITSTATUS(status) == 1)
                break;
        }
    }
}

const std::string saved = R"({"Status":"0","FailReason":""})";

class Restrictions : public Commands {
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
    std::string internet(const std::string &hosts) {
        return answer_of(*on_, {"SET_LANHOST_INTERNET", ("{\"Info\":[" + hosts + "]}").c_str()});
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
    const std::string x = R"({"MAC":"02C0FFEE0001","InternetAccess":"%"})";
    const std::string wrong = R"({"MAC":"02C0FFEE0002","InternetAccess":"9"})";
    std::string x_is(char access) const { return std::string(x).replace(x.find('%'), 1, 1, access); }
};

// What stands before a fault is stored and applied like anything else: the same after a restart.
TEST_F(Restrictions, BeforeAFaultAreStoredAndApplied) {
    const std::string invalid = R"({"FailReason":"invalid InternetAccess","Status":"-1"})";
    EXPECT_EQ(internet(wrong), invalid);
    EXPECT_EQ(content(), files{});
    EXPECT_EQ(internet(x_is('0') + "," + wrong), invalid);
    EXPECT_EQ(content(), (files{{"extcc-lhpc.cfg", "02C0FFEE0001|2|0|0|0\n"}}));
    EXPECT_EQ(internet(x_is('2') + "," + wrong), invalid);
    const char *schedule =
        R"({"MAC":"02C0FFEE0001","Info":[{"Mode":"0","StartTime":"0:00","EndTime":"24:00","Enable":"1"}]})";
    EXPECT_EQ(answer_of(*on_, {"SET_LANHOST_TIMER", schedule}), saved);
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
        EXPECT_EQ(internet(x_is('2')), saved);
        arrival();
        EXPECT_EQ(content()["extcc-lhf.cfg"], "02C0FFEE0001\n");
        EXPECT_EQ(blocked ? internet(x_is('0')) : saved, saved);
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
    EXPECT_EQ(internet(x_is('2')), saved);
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
        pass(1);
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
