// What the `ubus` command shows and does, against objects of this process; and how the daemon starts and
// ends.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "support.h"

namespace arvok {
namespace {

using testing::HasSubstr;

class Command : public Bus {
  protected:
    Peer peer{socket};
};

TEST_F(Command, ListsObjectsAndTheirMethods) {
    Service b(peer, "home.b"), a(peer, "home.a"), other(peer, "other");

    EXPECT_EQ(ubus({"list"}).output, "home.a\nhome.b\nother\n");
    EXPECT_EQ(ubus({"list", "home.*"}).output, "home.a\nhome.b\n");
    EXPECT_EQ(ubus({"list", "home.b"}).output, "home.b\n");
    const Result none = ubus({"list", "home"});
    EXPECT_EQ(none.status, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(none.errors, "Command failed: Not found\n");

    char id[9];
    snprintf(id, sizeof(id), "%08x", a.object()->id);
    const std::string verbose =
        std::string("'home.a' @") + id +
        "\n\t\"echo\":{\"text\":\"String\",\"number\":\"Integer\",\"flag\":\"Boolean\","
        "\"list\":\"Array\",\"table\":\"Table\"}\n\t\"numbers\":{}\n\t\"custom\":{}\n";
    EXPECT_EQ(ubus({"list", "-v", "home.a"}).output, verbose);
    EXPECT_EQ(ubus({"-v", "list", "home.a"}).output, verbose);
}

TEST_F(Command, CallsPrintEveryAnswerAndFailWithTheStatus) {
    Service service(peer, "service");
    const std::string json = R"({"a":{"b":[1,{"c":"d"}],"e":5000000000},"f":true})";

    EXPECT_EQ(ubus({"-S", "call", "service", "echo", json}).output, json + "\n");
    EXPECT_EQ(ubus({"call", "service", "echo", R"({"a":[1]})"}).output, "{\n\t\"a\": [\n\t\t1\n\t]\n}\n");
    EXPECT_EQ(ubus({"-S", "call", "service", "numbers"}).output, "{\"i\":1}\n{\"i\":2}\n{\"i\":3}\n");

    service.custom = [](ubus_request_data *, const std::string &, blob_attr *) { return 11; };
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char *error;
    } failures[] = {
        {{"call", "service", "custom"}, 11, "Command failed: Out of memory\n"},
        {{"call", "nobody", "custom"}, 4, "Command failed: Not found\n"},
        {{"call", "service", "echo", "{"}, 12, "Command failed: Parsing message data failed\n"},
        {{"-s", "/nonexistent/absent", "list"}, 255, "Failed to connect to ubus\n"},
    };
    for (const auto &failure : failures) {
        const Result result = ubus(failure.arguments);
        EXPECT_EQ(result.status, failure.status);
        EXPECT_EQ(result.errors, failure.error);
        EXPECT_EQ(result.output, "");
    }
    EXPECT_EQ(ubus({"dance"}).status, 1);
}

TEST_F(Command, ACallIsGivenUpAfterItsTime) {
    Service service(peer, "service");
    ubus_request_data deferred;
    service.custom = [&](ubus_request_data *request, const std::string &, blob_attr *) {
        ubus_defer_request(peer.get(), request, &deferred);
        return 0;
    };
    const Result result = ubus({"-t", "1", "call", "service", "custom"});
    EXPECT_EQ(result.status, UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(result.errors, "Command failed: Request timed out\n");
}

TEST_F(Command, SubscribePrintsALinePerNotificationUntilItIsStopped) {
    Service service(peer, "service"), second(peer, "second");
    const auto program = start_ubus({"subscribe", "service", "second"});

    ASSERT_TRUE(
        pump_until([&] { return service.object()->has_subscribers && second.object()->has_subscribers; }));
    Json one(R"({"a":[1,2]})"), two;
    ubus_notify(peer.get(), service.object(), "first", one.head(), -1);
    ubus_notify(peer.get(), second.object(), "sec\"ond", two.head(), -1);
    const std::string lines = "{\"first\":{\"a\":[1,2]}}\n{\"sec\\\"ond\":{}}\n";
    ASSERT_TRUE(pump_until([&] { return program->output().size() >= lines.size(); })) << program->output();
    EXPECT_EQ(program->output(), lines);
    program->signal(SIGINT);
    EXPECT_EQ(program->finish(), 0);
    EXPECT_EQ(ubus({"subscribe", "nobody"}).status, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus({"-t", "1", "subscribe", "service"}).status, 0);
}

TEST_F(Command, EventsReachThoseWhoListenForThem) {
    const auto all = start_ubus({"listen"});
    const auto some = start_ubus({"listen", "home.*", "exact"});
    const auto has = [](const auto &program, const char *text) {
        return program->output().find(text) != std::string::npos;
    };

    // Whether they listen yet, only an event can tell.
    ASSERT_TRUE(pump_until([&] {
        ubus({"send", "home.ready"});
        return has(all, "home.ready") && has(some, "home.ready");
    }));
    for (const char *event : {"exact", "exactly", "home.door", "homeless", "end"})
        EXPECT_EQ(ubus({"send", event, R"({"open":true})"}).status, 0);
    ASSERT_TRUE(pump_until([&] { return has(all, "\"end\""); }));
    EXPECT_EQ(ubus({"send", "home.end"}).status, 0);
    ASSERT_TRUE(pump_until([&] { return has(some, "home.end"); }));
    EXPECT_THAT(all->output(), HasSubstr("{\"exactly\":{\"open\":true}}\n"));
    EXPECT_THAT(some->output(), HasSubstr("{\"exact\":{\"open\":true}}\n{\"home.door\":{\"open\":true}}\n"));
    EXPECT_FALSE(has(some, "exactly") || has(some, "homeless"));
    all->signal(SIGTERM);
    EXPECT_EQ(all->finish(), 0);

    // The bus goes away under it.
    stop_daemon();
    EXPECT_EQ(some->finish(), UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(Command, WaitsForObjects) {
    Service early(peer, "early");
    EXPECT_EQ(ubus({"wait_for", "early"}).status, 0);

    const auto waiting = start_ubus({"wait_for", "early", "late", "later"});
    Service unrelated(peer, "unrelated");
    Service late(peer, "late"), later(peer, "later");
    EXPECT_EQ(waiting->finish(), 0);
    const Result never = ubus({"-t", "1", "wait_for", "early", "never"});
    EXPECT_EQ(never.status, UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(never.errors, "Command failed: Request timed out\n");
}

TEST_F(Bus, TheDaemonRespectsWhatIsAtItsSocket) {
    if (std::getenv("ARVOK_BUS"))
        GTEST_SKIP() << "the daemon is another's";
    const auto run = [](const std::vector<std::string> &arguments) {
        Program program(arguments);
        const int status = program.finish();
        return std::make_pair(status, program.errors());
    };
    // One that is served, and a file.
    EXPECT_THAT(run({BUS_PROGRAMS "/ubusd", "-s", socket}), testing::Pair(1, HasSubstr("in use")));
    std::ofstream(directory + "/file") << "precious";
    EXPECT_THAT(run({BUS_PROGRAMS "/ubusd", "-s", directory + "/file"}),
                testing::Pair(1, HasSubstr("not a socket")));
    EXPECT_EQ(ubus({"list"}).status, 0);

    // One that a killed daemon has left behind.
    daemon->signal(SIGKILL);
    EXPECT_EQ(daemon->finish(), -SIGKILL);
    EXPECT_EQ(access(socket.c_str(), F_OK), 0);
    start_daemon();
    EXPECT_EQ(ubus({"list"}).status, 0);
    EXPECT_EQ(stop_daemon(), 0);
    EXPECT_NE(access(socket.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace arvok
