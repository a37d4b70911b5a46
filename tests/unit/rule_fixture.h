#pragma once
/// Rules in a folder of their own, on a device that is made up.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "access/access.h"
#include "rule_seams.h"

namespace arvok::access {

struct command {
    const char *name, *message;
};

inline constexpr std::time_t wednesday_noon = 1795003200 - 8 * 3600;

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

inline const files before_commands{{"extcc-lht.cfg", "02C0FFEE0001|0|0:00|24:00|1|c|g\n"},
                                   {"extcc-lhpc.cfg", "02C0FFEE0002|2|0|0|0\n"},
                                   {"extcc-gst-idx.cfg", "5"},
                                   {"extcc-gst-tmr.cfg", "5\t1\t0\t0\t0\t-1111\n"}};

inline std::string answer_of(rules &on, const command &asked) {
    bus_message reply;
    const json::document message = json::parse(asked.message);
    EXPECT_TRUE(on.run(asked.name, message.root(), reply));
    return json_of(reply.get()).value_or("");
}

inline std::string dump_of(rules &on) {
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
    // The power goes before system call `n` of a command. Whether there is one.
    bool power_goes(int n, const command &asked) const {
        const pid_t child = fork();
        if (child == 0) {
            rules on([] { return now; }, folder_);
            disk = {.failing = n, .error = 0};
            answer_of(on, asked);
            _exit(1);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
};

// Commands one after the other, to rules that begin without files.
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

}  // namespace arvok::access
