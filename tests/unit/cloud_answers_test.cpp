// What of the platform's messages is taken in which stage.

#include "cloud_fixture.h"

namespace arvok::cloud {
namespace {

TEST_F(Cloud, AnAnswerThatSaysTooLittleLeavesTheDeadlineRunning) {
    const struct {
        std::function<void()> reach;
        const char *method, *members, *line;
    } answers[] = {
        {[this] { bootstrap(); }, "Boot", R"("Result":0)", "[ERROR] invalid BizPlat\n"},
        {[this] { bootstrap(); }, "Boot", R"("Result":0,"BizPlat":[])", "[ERROR] BizPlat is null\n"},
        {[this] { fetch_challenge(); }, "GetChallengeCode", R"("Result":0,"ChallengeCode":"short")",
         "[ERROR] invalid ChallengeCode\n"},
        {[this] { activate(); }, "Activate", R"("Result":0,"DevID":"d")",
         "[ERROR] invalid DevToken or DevId\n"},
        {[this] { prove(); }, "Connect", R"("Result":0,"SKey":"short")", "[ERROR] invalid SKey\n"},
    };
    for (const auto &a : answers) {
        SCOPED_TRACE(a.line);
        a.reach();
        send(ack(a.method, a.members));
        expect_log(a.line + std::string("[ERROR] (cloud) invalid server msg\n"));
        expect_armed(client_->acknowledgement_remaining(), 30000);
        client_.reset();
        log();
        machine = {};
    }
}

// Whoever answers in the platform's place cannot read what is encrypted for it, but may say anything.
TEST_F(Cloud, WhatTheStageDoesNotAwaitChangesNothing) {
    const std::pair<std::string, std::string> acknowledgements[] = {
        {"Boot", R"("Result":0,"BizPlat":[{"ServerAddr":"evil.example","ServerPort":8088}])"},
        {"GetChallengeCode", R"("Result":0,"ChallengeCode":"cccccccccccccccccccccccccccccccc")"},
        {"Activate", R"("Result":0,"DevToken":"t","DevID":"d")"},
        {"Connect", R"("Result":0,"SKey":"0123456789abcdef")"},
        {"Connect", R"("Result":-2)"},
        {"Heartbeat", R"("Result":-1)"},
        {"InstallNotification", R"("Result":0)"},
    };
    const struct {
        std::function<void()> reach;
        const char *awaited;
    } stages[] = {
        {[this] { bootstrap(); }, "Boot"},
        {[this] { fetch_challenge(); }, "GetChallengeCode"},
        {[this] { activate(); }, "Activate"},
        {[this] { prove(); }, "Connect"},
    };
    for (const auto &[reach, awaited] : stages) {
        SCOPED_TRACE(awaited);
        reach();
        log();
        const std::string words = client_->status_words();
        for (const auto &[name, members] : acknowledgements)
            if (name != awaited) {
                send(ack(name, members));
                expect_log("[ERROR] (cloud) invalid server msg\n");
                log();
            }
        for (const char *method : {"RequestConnectBSS", "Install", "Uninstall", "Stop", "Run",
                                   "RestorePlugin", "ListPlugin", "SetPluginParams"})
            EXPECT_EQ(ask(method),
                      format(R"({"Ack":"%s","ID":"1","Result":-1,"FailReason":"NOT_CONNECTED"})", method));
        EXPECT_TRUE(contains(ask("Reboot"), "UNRECOGNIZE_REQUEST"));
        EXPECT_EQ(client_->status_words(), words);
        EXPECT_TRUE(machine.stored.empty());
        expect_armed(client_->acknowledgement_remaining(), 30000);
        client_->send_notification("too early");
        turn();
        EXPECT_FALSE(contains(log(), "PluginNotification"));
        machine = {};
    }
}

}  // namespace
}  // namespace arvok::cloud
