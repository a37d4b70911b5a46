// Acknowledgements of the platform that say too little.

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

}  // namespace
}  // namespace arvok::cloud
