// The daemon against clients that do not keep to the rules.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "support.h"

namespace arvok {
namespace {

using testing::HasSubstr;

struct Attributes {
    blob_buf buf{};

    Attributes() { blob_buf_init(&buf, 0); }
    ~Attributes() { blob_buf_free(&buf); }
    Attributes(const Attributes &) = delete;
};

std::string invocation(uint32_t object, const char *method, const std::string &json, uint16_t seq = 1) {
    Attributes attributes;
    Json data(json);
    blob_put_int32(&attributes.buf, UBUS_ATTR_OBJID, object);
    blob_put_string(&attributes.buf, UBUS_ATTR_METHOD, method);
    blob_put(&attributes.buf, UBUS_ATTR_DATA, blob_data(data.head()), unsigned(blob_len(data.head())));
    return Wire::message(UBUS_MSG_INVOKE, seq, object, attributes.buf);
}

// An object without a path on the bus.
uint32_t add_object(Wire &wire) {
    Attributes none;
    wire.send(Wire::message(UBUS_MSG_ADD_OBJECT, 9, 0, none.buf));
    const WireMessage data = wire.receive();
    EXPECT_EQ(data.type, UBUS_MSG_DATA);
    EXPECT_GT(data.object, 1024u);
    const WireMessage status = wire.receive();
    EXPECT_EQ(status.status, UBUS_STATUS_OK);
    EXPECT_EQ(status.seq, 9);
    return data.object;
}

TEST_F(Bus, AnswersWrongRequestsWithTheirStatus) {
    Peer peer(socket);
    Service service(peer, "service");
    Wire wire(socket);
    const uint32_t foreign = service.object()->id;
    const auto blob = [](const std::function<void(blob_buf *)> &fill) {
        auto attributes = std::make_shared<Attributes>();
        fill(&attributes->buf);
        return attributes;
    };
    const auto objid = [&](uint32_t id) {
        return blob([&](blob_buf *b) { blob_put_int32(b, UBUS_ATTR_OBJID, id); });
    };
    const auto nothing = blob([](blob_buf *) {});
    const struct {
        int type;
        std::shared_ptr<Attributes> attributes;
        int status;
    } cases[] = {
        {200, nothing, UBUS_STATUS_INVALID_COMMAND},
        {UBUS_MSG_INVOKE, nothing, UBUS_STATUS_INVALID_ARGUMENT},
        {UBUS_MSG_REMOVE_OBJECT, objid(foreign), UBUS_STATUS_NOT_FOUND},
        {UBUS_MSG_NOTIFY, blob([&](blob_buf *b) {
             blob_put_int32(b, UBUS_ATTR_OBJID, foreign);
             blob_put_string(b, UBUS_ATTR_METHOD, "m");
         }),
         UBUS_STATUS_PERMISSION_DENIED},
        {UBUS_MSG_LOOKUP, blob([](blob_buf *b) { blob_put_string(b, UBUS_ATTR_OBJPATH, ""); }),
         UBUS_STATUS_NOT_FOUND},
        {UBUS_MSG_ADD_OBJECT, blob([](blob_buf *b) {
             blob_put_string(b, UBUS_ATTR_OBJPATH, "service");
             blob_put(b, UBUS_ATTR_SIGNATURE, nullptr, 0);
         }),
         UBUS_STATUS_INVALID_ARGUMENT},
    };
    uint16_t seq = 100;
    for (const auto &wrong : cases) {
        ASSERT_TRUE(wire.send(Wire::message(wrong.type, ++seq, 77, wrong.attributes->buf)));
        const WireMessage answer = wire.receive();
        EXPECT_EQ(answer.type, UBUS_MSG_STATUS) << "case " << seq - 101;
        EXPECT_EQ(answer.status, wrong.status) << "case " << seq - 101;
        EXPECT_EQ(answer.seq, seq);
        EXPECT_EQ(answer.peer, 77u);
    }
}

TEST_F(Bus, ForwardsCallsInTheFormThatProvidersExpect) {
    Wire provider(socket), caller(socket);
    const uint32_t object = add_object(provider);

    caller.send(invocation(object, "method", R"({"a":1})", 321));
    const WireMessage call = provider.receive();
    EXPECT_EQ(call.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(call.seq, 321);
    EXPECT_EQ(call.peer, caller.id());
    EXPECT_EQ(call.object, object);
    blob_attr *attributes[UBUS_ATTR_MAX];
    WireMessage copy = call;
    blob_parse(reinterpret_cast<blob_attr *>(copy.body.data()), attributes, nullptr, UBUS_ATTR_MAX);
    EXPECT_STREQ(blob_get_string(attributes[UBUS_ATTR_METHOD]), "method");
    EXPECT_EQ(json_of(attributes[UBUS_ATTR_DATA]), R"({"a":1})");
    EXPECT_NE(attributes[UBUS_ATTR_USER], nullptr);
    EXPECT_NE(attributes[UBUS_ATTR_GROUP], nullptr);
    EXPECT_EQ(attributes[UBUS_ATTR_NO_REPLY], nullptr);

    Attributes status;
    blob_put_int32(&status.buf, UBUS_ATTR_STATUS, 5);
    blob_put_int32(&status.buf, UBUS_ATTR_OBJID, object);
    provider.send(Wire::message(UBUS_MSG_STATUS, call.seq, call.peer, status.buf));
    const WireMessage answer = caller.receive();
    EXPECT_EQ(answer.status, 5);
    EXPECT_EQ(answer.seq, 321);
    EXPECT_EQ(answer.peer, object);
    // The call has ended: nothing more about it when the provider goes, only that it is gone.
    provider.close();
    caller.send(invocation(object, "method", "{}", 322));
    const WireMessage end = caller.receive();
    EXPECT_EQ(end.seq, 322);
    EXPECT_EQ(end.status, UBUS_STATUS_NOT_FOUND);
}

TEST_F(Bus, ClientsThatBreakTheStreamAreDroppedAndHarmNobody) {
    Peer peer(socket), caller(socket);
    Service service(peer, "service");
    const std::string sound = invocation(service.object()->id, "echo", R"({"a":1})");
    std::string version = sound, tiny = sound, huge = sound;
    version[0] = 1;
    memcpy(&tiny[8], "\0\0\0\3", 4);
    memcpy(&huge[8], "\0\x20\0\0", 4);
    for (const std::string &broken : {version, tiny, huge}) {
        Wire wire(socket);
        wire.send(broken);
        EXPECT_EQ(wire.receive().type, -1);
    }
    EXPECT_THAT(caller.call("service", "echo", R"({"still":"here"})").data,
                testing::ElementsAre(R"({"still":"here"})"));
}

TEST_F(Bus, WhatWasSentBeforeLeavingStillCounts) {
    Peer listener(socket);
    struct Handler : ubus_event_handler {
        int seen;
    } handler{};
    handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *, blob_attr *) {
        static_cast<Handler *>(ev)->seen++;
    };
    ASSERT_EQ(ubus_register_event_handler(listener.get(), &handler, "parting"), 0);

    // Whoever leaves does not hear that its events have been sent, and they are more than the daemon takes in
    // one turn.
    std::string events;
    for (int i = 0; i < 100; i++)
        events += invocation(UBUS_SYSTEM_OBJECT_EVENT, "send", R"({"id":"parting","data":{}})");
    Wire leaving(socket);
    daemon->signal(SIGSTOP);
    leaving.send(events);
    leaving.close();
    daemon->signal(SIGCONT);
    ASSERT_TRUE(pump_until([&] { return handler.seen == 100; })) << handler.seen;

    // The same with the daemon leaving, and the client that has not read yet.
    Peer sender(socket);
    Json message;
    for (int i = 0; i < 100; i++)
        ubus_send_event(sender.get(), "parting", message.head());
    daemon->signal(SIGKILL);
    waitid(P_PID, static_cast<id_t>(daemon->pid()), std::make_unique<siginfo_t>().get(), WEXITED | WNOWAIT);
    ASSERT_TRUE(pump_until([&] { return handler.seen == 200; })) << handler.seen;
    daemon->finish();
    daemon.reset();
    ubus_unregister_event_handler(listener.get(), &handler);
}

TEST_F(Bus, TheDaemonRespectsWhatIsAtItsSocket) {
    const auto run = [](const std::vector<std::string> &arguments) {
        Program program(arguments);
        const int status = program.finish();
        return std::make_pair(status, program.errors());
    };
    // One that is served, and a file.
    EXPECT_THAT(run({UBUSD, "-s", socket}), testing::Pair(1, HasSubstr("in use")));
    std::ofstream(directory + "/file") << "precious";
    EXPECT_THAT(run({UBUSD, "-s", directory + "/file"}), testing::Pair(1, HasSubstr("not a socket")));
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
