// The client library against the real daemon.
#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "support.h"

namespace arvok {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;

// Serves "child" from another process: its own methods, and one that never ends.
void serve_child(const Peer &peer) {
    Service service(peer, "child");
    ubus_request_data deferred;

    service.custom = [&](ubus_request_data *request, const std::string &, blob_attr *) {
        ubus_defer_request(peer.get(), request, &deferred);
        return 0;
    };
    uloop_run();
}

void wait_for(const Peer &peer, const char *path) {
    ASSERT_TRUE(pump_until([&] {
        uint32_t id;
        return ubus_lookup_id(peer.get(), path, &id) == UBUS_STATUS_OK;
    })) << path;
}

std::vector<std::string> invoke(ubus_context *bus, uint32_t id, const char *method, const std::string &json,
                                int timeout, int expected) {
    std::vector<std::string> data;
    Json message(json);
    const auto take = [](ubus_request *request, int, blob_attr *answer) {
        static_cast<std::vector<std::string> *>(request->priv)->push_back(json_of(answer));
    };
    EXPECT_EQ(ubus_invoke(bus, id, method, message.head(), take, &data, timeout), expected) << method;
    return data;
}

TEST_F(Bus, SynchronousCallsGetEveryAnswerAStatusOrATimeOut) {
    OtherProcess child(socket, serve_child);
    Peer peer(socket);
    wait_for(peer, "child");
    const uint32_t id = peer.id_of("child");
    const std::string nested = R"({"t":{"l":[{"deep":[[1]]},"x"],"n":null},"i":-1,"big":-5000000000})";

    EXPECT_THAT(invoke(peer.get(), id, "echo", nested, 5000, UBUS_STATUS_OK), ElementsAre(nested));
    EXPECT_THAT(invoke(peer.get(), id, "numbers", "{}", 0, UBUS_STATUS_OK),
                ElementsAre("{\"i\":1}", "{\"i\":2}", "{\"i\":3}"));
    EXPECT_THAT(invoke(peer.get(), id, "nothing", "{}", 5000, UBUS_STATUS_METHOD_NOT_FOUND), ElementsAre());
    EXPECT_THAT(invoke(peer.get(), 4711, "echo", "{}", 5000, UBUS_STATUS_NOT_FOUND), ElementsAre());
    const auto begin = steady_clock::now();
    invoke(peer.get(), id, "custom", "{}", 300, UBUS_STATUS_TIMEOUT);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(290));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
    // Large messages in both directions, up to the limit and not beyond.
    const std::string large = "{\"x\":\"" + std::string(1000000, 'y') + "\"}";
    EXPECT_THAT(invoke(peer.get(), id, "echo", large, 5000, UBUS_STATUS_OK), ElementsAre(large));
    invoke(peer.get(), id, "echo", "{\"x\":\"" + std::string(1100000, 'y') + "\"}", 5000,
           UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_THAT(invoke(peer.get(), id, "echo", "{}", 5000, UBUS_STATUS_OK), ElementsAre("{}"));
}

TEST_F(Bus, AHandlerMayCallAndWhatArrivesMeanwhileIsServedAfter) {
    std::vector<std::string> log;
    // Asked for "go", it first calls back into the front and only then answers.
    OtherProcess child(socket, [](const Peer &peer) {
        Service service(peer, "child");
        service.custom = [&](ubus_request_data *, const std::string &, blob_attr *) {
            peer.start(peer.id_of("front"), "custom", R"({"say":"note"})");
            return int{UBUS_STATUS_OK};
        };
        uloop_run();
    });
    Peer peer(socket), caller(socket);
    Service front(peer, "front");
    wait_for(peer, "child");
    front.custom = [&](ubus_request_data *request, const std::string &json, blob_attr *message) {
        log.push_back(json);
        if (json.find("relay") == std::string::npos)
            return int{UBUS_STATUS_OK};
        const uint32_t child_id = peer.id_of("child");
        invoke(peer.get(), child_id, "custom", "{}", 5000, UBUS_STATUS_OK);
        // The note has been sent before this answer.
        EXPECT_THAT(invoke(peer.get(), child_id, "echo", json, 5000, UBUS_STATUS_OK), ElementsAre(json));
        log.emplace_back("relayed " + json_of(message));
        return ubus_send_reply(peer.get(), request, message);
    };
    const Answer answer = caller.call("front", "custom", R"({"say":"relay"})");
    EXPECT_EQ(answer.status, UBUS_STATUS_OK);
    EXPECT_THAT(answer.data, ElementsAre(R"({"say":"relay"})"));
    ASSERT_TRUE(pump_until([&] { return log.size() == 3; }));
    EXPECT_THAT(log, ElementsAre(R"({"say":"relay"})", R"(relayed {"say":"relay"})", R"({"say":"note"})"));
}

TEST_F(Bus, DeferredRequestsAreAnsweredLaterInAnyOrder) {
    Peer peer(socket), caller(socket);
    Service service(peer, "service");
    ubus_request_data deferred[2];
    int n = 0;
    service.custom = [&](ubus_request_data *request, const std::string &, blob_attr *) {
        EXPECT_STRNE(request->acl.user, nullptr);
        ubus_defer_request(peer.get(), request, &deferred[n++]);
        return int{UBUS_STATUS_UNKNOWN_ERROR};
    };
    const uint32_t id = caller.id_of("service");
    const auto first = caller.start(id, "custom"), second = caller.start(id, "custom");
    ASSERT_TRUE(pump_until([&] { return n == 2; }));
    EXPECT_FALSE(first->complete || second->complete);
    for (int i : {1, 0}) {
        Json reply("{\"i\":" + std::to_string(i) + "}");
        ubus_send_reply(peer.get(), &deferred[i], reply.head());
        ubus_complete_deferred_request(peer.get(), &deferred[i], i ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA);
        const auto &answer = i ? second : first;
        ASSERT_TRUE(pump_until([&] { return answer->complete; }));
        EXPECT_THAT(answer->data, ElementsAre("{\"i\":" + std::to_string(i) + "}"));
    }
    EXPECT_EQ(first->status, UBUS_STATUS_NO_DATA);
    EXPECT_EQ(second->status, UBUS_STATUS_OK);
}

TEST_F(Bus, ADataCallbackMayCallAndItsRequestEndsAfterIt) {
    OtherProcess child(socket, serve_child);
    Peer peer(socket);
    wait_for(peer, "child");
    struct Call : ubus_request {
        uint32_t child;
        std::vector<std::string> log;
    } call{};
    Json empty;
    const uint32_t id = peer.id_of("child");

    ASSERT_EQ(ubus_invoke_async(peer.get(), id, "numbers", empty.head(), &call), 0);
    call.child = id;
    call.data_cb = [](ubus_request *request, int, blob_attr *data) {
        auto *self = static_cast<Call *>(request);
        self->log.push_back("begin " + json_of(data));
        // The other answers to the outer request arrive meanwhile, and come afterwards, the latest first.
        invoke(request->ctx, self->child, "echo", "{}", 5000, UBUS_STATUS_OK);
        self->log.emplace_back("end");
    };
    call.complete_cb = [](ubus_request *request, int) {
        static_cast<Call *>(request)->log.emplace_back("complete");
    };
    ubus_complete_request_async(peer.get(), &call);
    ASSERT_TRUE(pump_until([&] { return !call.log.empty() && call.log.back() == "complete"; }));
    EXPECT_THAT(call.log, ElementsAre("begin {\"i\":1}", "end", "begin {\"i\":3}", "end", "begin {\"i\":2}",
                                      "end", "complete"));
}

TEST_F(Bus, AnAbortedRequestIsNotHeardOfAgain) {
    Peer peer(socket), caller(socket);
    Service service(peer, "service");
    static int data, completions;
    Json empty;
    ubus_request call;

    data = completions = 0;
    ASSERT_EQ(ubus_invoke_async(caller.get(), caller.id_of("service"), "numbers", empty.head(), &call), 0);
    call.data_cb = [](ubus_request *request, int, blob_attr *) {
        data++;
        ubus_abort_request(request->ctx, request);
    };
    call.complete_cb = [](ubus_request *, int) { completions++; };
    ubus_complete_request_async(caller.get(), &call);
    ASSERT_TRUE(pump_until([&] { return data > 0; }));
    // Whatever was under way to the same client has arrived before this answer.
    caller.call("service", "echo");
    EXPECT_EQ(data, 1);
    EXPECT_EQ(completions, 0);
}

TEST_F(Bus, ACallWhoseObjectLeavesWaitsOn) {
    OtherProcess child(socket, [](const Peer &peer) {
        Service service(peer, "child");
        service.custom = [](ubus_request_data *, const std::string &, blob_attr *) -> int { _exit(0); };
        uloop_run_timeout(-1);
    });
    Peer peer(socket);
    wait_for(peer, "child");
    const uint32_t id = peer.id_of("child");
    const auto begin = steady_clock::now();
    // The end of the process is no end of the wait, either.
    std::raise(SIGTERM);
    invoke(peer.get(), id, "custom", "{}", 300, UBUS_STATUS_TIMEOUT);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(290));
    invoke(peer.get(), id, "custom", "{}", 300, UBUS_STATUS_NOT_FOUND);
}

struct Subscriber : ubus_subscriber {
    std::vector<std::string> seen;
    std::vector<uint32_t> removed;
    std::function<void()> on_notified = [] {};
    std::function<void()> on_removed = [] {};

    explicit Subscriber(const Peer &peer) : ubus_subscriber{} {
        cb = [](ubus_context *, ubus_object *object, ubus_request_data *, const char *method,
                blob_attr *message) {
            auto *self = static_cast<Subscriber *>(container_of(object, ubus_subscriber, obj));
            self->seen.push_back(method + json_of(message));
            self->on_notified();
            return int{UBUS_STATUS_OK};
        };
        remove_cb = [](ubus_context *, ubus_subscriber *subscriber, uint32_t id) {
            auto *self = static_cast<Subscriber *>(subscriber);
            self->removed.push_back(id);
            self->on_removed();
        };
        EXPECT_EQ(ubus_register_subscriber(peer.get(), this), UBUS_STATUS_OK);
    }
};

TEST_F(Bus, SubscribersAreNotifiedCountedAndToldTheEnd) {
    Peer provider(socket), watcher(socket);
    Subscriber one(watcher), two(watcher);
    std::vector<bool> activity;
    Json message(R"({"n":1})");
    uint32_t id;
    {
        Service service(provider, "service");
        id = service.object()->id;
        service.on_subscribers = [&](bool active) { activity.push_back(active); };
        EXPECT_EQ(ubus_subscribe(watcher.get(), &one, 4711), UBUS_STATUS_NOT_FOUND);
        EXPECT_EQ(ubus_unsubscribe(watcher.get(), &one, id), UBUS_STATUS_NOT_FOUND);
        EXPECT_EQ(ubus_subscribe(watcher.get(), &one, two.obj.id), UBUS_STATUS_INVALID_ARGUMENT) << "own";
        // One that subscribes twice is told everything twice.
        for (Subscriber *subscriber : {&one, &two, &one})
            EXPECT_EQ(ubus_subscribe(watcher.get(), subscriber, id), UBUS_STATUS_OK);
        ubus_notify(provider.get(), service.object(), "first", message.head(), -1);
        ASSERT_TRUE(pump_until([&] { return one.seen.size() + two.seen.size() == 3 && !activity.empty(); }));
        EXPECT_THAT(one.seen, ElementsAre("first{\"n\":1}", "first{\"n\":1}"));
        EXPECT_THAT(activity, ElementsAre(true));

        for (int i = 0; i < 2; i++)
            EXPECT_EQ(ubus_unsubscribe(watcher.get(), &one, id), UBUS_STATUS_OK);
        ubus_notify(provider.get(), service.object(), "second", message.head(), -1);
        ASSERT_TRUE(pump_until([&] { return two.seen.size() == 2; }));
        EXPECT_EQ(ubus_unsubscribe(watcher.get(), &two, id), UBUS_STATUS_OK);
        ASSERT_TRUE(pump_until([&] { return activity.size() == 2; }));
        EXPECT_THAT(activity, ElementsAre(true, false));
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(ubus_subscribe(watcher.get(), &two, id), UBUS_STATUS_OK);
    }
    ASSERT_TRUE(pump_until([&] { return two.removed.size() == 2; }));
    EXPECT_THAT(two.removed, ElementsAre(id, id));
    EXPECT_EQ(one.seen.size(), 2u);
    EXPECT_THAT(two.seen, ElementsAre("first{\"n\":1}", "second{\"n\":1}"));
    EXPECT_TRUE(one.removed.empty());
}

// What a subscription that outlives its object's restart is built of.
TEST_F(Bus, AReturnedObjectIsAnnouncedAfterTheEndOfTheOldOneAndNeverWithinACall) {
    Peer provider(socket), watcher(socket);
    Subscriber subscriber(watcher);
    struct Listener : ubus_event_handler {
        Subscriber *subscriber;
    } listener{};
    bool calling = false;

    const auto renew = [&](const char *why) {
        EXPECT_FALSE(calling);
        calling = true;
        uint32_t id;
        const bool found = ubus_lookup_id(watcher.get(), "service", &id) == UBUS_STATUS_OK;
        if (found) {
            EXPECT_EQ(ubus_subscribe(watcher.get(), &subscriber, id), UBUS_STATUS_OK);
        }
        calling = false;
        subscriber.seen.emplace_back(std::string(why) + (found ? " subscribes" : " finds nothing"));
    };
    subscriber.on_removed = [&] { renew("end"); };
    listener.subscriber = &subscriber;
    listener.cb = [](ubus_context *, ubus_event_handler *handler, const char *, blob_attr *message) {
        // The object's number is another each time.
        const std::string text = json_of(message);
        static_cast<Listener *>(handler)->subscriber->seen.push_back(text.substr(text.find("\"path")));
    };
    EXPECT_EQ(ubus_register_event_handler(watcher.get(), &listener, "ubus.object.add"), UBUS_STATUS_OK);

    auto service = std::make_unique<Service>(provider, "service");
    EXPECT_EQ(ubus_subscribe(watcher.get(), &subscriber, service->object()->id), UBUS_STATUS_OK);
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 1; }));
    // It goes, and later comes.
    service.reset();
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 2; }));
    service = std::make_unique<Service>(provider, "service");
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 3; }));
    renew("event");
    // It is back before anybody looks: the end is told first, and what is subscribed there is the new object.
    service.reset();
    service = std::make_unique<Service>(provider, "service");
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 6; }));
    Json message;
    ubus_notify(provider.get(), service->object(), "note", message.head(), -1);
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 7; }));
    EXPECT_THAT(subscriber.seen,
                ElementsAre("\"path\":\"service\"}", "end finds nothing", "\"path\":\"service\"}",
                            "event subscribes", "end subscribes", "\"path\":\"service\"}", "note{}"));
    EXPECT_EQ(ubus_unregister_event_handler(watcher.get(), &listener), UBUS_STATUS_OK);
}

TEST_F(Bus, MessagesAreServedOneInATurnOfTheLoop) {
    Peer provider(socket), watcher(socket);
    Subscriber subscriber(watcher);
    Service service(provider, "service");
    struct Timer : uloop_timeout {
        Subscriber *subscriber;
    } at_once{};
    Json message;

    at_once.subscriber = &subscriber;
    at_once.cb = [](uloop_timeout *timer) {
        static_cast<Timer *>(timer)->subscriber->seen.emplace_back("timer");
    };
    subscriber.on_notified = [&] { uloop_timeout_set(&at_once, 0); };
    EXPECT_EQ(ubus_subscribe(watcher.get(), &subscriber, service.object()->id), UBUS_STATUS_OK);
    for (const char *name : {"a", "b", "c"})
        ubus_notify(provider.get(), service.object(), name, message.head(), -1);
    // Its answer comes behind them, at the other client.
    EXPECT_EQ(provider.id_of("service"), service.object()->id);
    ASSERT_TRUE(pump_until([&] { return subscriber.seen.size() == 6; }));
    EXPECT_THAT(subscriber.seen, ElementsAre("a{}", "timer", "b{}", "timer", "c{}", "timer"));
}

TEST_F(Bus, AClientThatDoesNotReadMissesMessagesAndStaysOnTheBus) {
    Peer provider(socket), watcher(socket);
    Subscriber subscriber(watcher);
    Service service(provider, "service");
    const struct {
        size_t size;
        int count;
    } bursts[] = {{900000, 30}, {4000, 3000}};

    EXPECT_EQ(ubus_subscribe(watcher.get(), &subscriber, service.object()->id), UBUS_STATUS_OK);
    for (const auto &burst : bursts) {
        Json message("{\"x\":\"" + std::string(burst.size, 'y') + "\"}"), nothing;
        const std::string last = "after" + std::to_string(burst.size);
        for (int i = 0; i < burst.count; i++)
            ubus_notify(provider.get(), service.object(), "burst", message.head(), -1);
        // It reads again: what there was room for is there, and then everything as before.
        size_t received = 0;
        subscriber.on_notified = [&] { received += subscriber.seen.back().rfind("burst", 0) == 0; };
        ASSERT_TRUE(pump_until([&] {
            ubus_notify(provider.get(), service.object(), last.c_str(), nothing.head(), -1);
            return !subscriber.seen.empty() && subscriber.seen.back() == last + "{}";
        }));
        EXPECT_GE(received * burst.size, 800000u);
        EXPECT_LT(received * burst.size, 3000000u);
    }
}

TEST_F(Bus, ALostBusFailsCallsAndCanBeFoundAgain) {
    Peer peer(socket), caller(socket);
    Service service(peer, "service");
    static int lost;
    lost = 0;
    // The library's own callback does nothing after a hang-up.
    caller.get()->connection_lost = [](ubus_context *) { lost++; };
    const uint32_t id = caller.id_of("service");
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->finish(), 0);
    ASSERT_TRUE(pump_until([&] { return lost > 0; }));
    EXPECT_EQ(lost, 1);
    EXPECT_FALSE(caller.get()->sock.registered);
    uint32_t gone = 0;
    EXPECT_EQ(ubus_lookup_id(caller.get(), "service", &gone), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(caller.start(id, "custom")->status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(ubus_reconnect(caller.get(), socket.c_str()), UBUS_STATUS_CONNECTION_FAILED);

    start_daemon();
    for (const Peer *again : {&peer, &caller}) {
        EXPECT_EQ(ubus_reconnect(again->get(), socket.c_str()), UBUS_STATUS_OK);
        ubus_add_uloop(again->get());
    }
    EXPECT_NE(service.object()->id, id);
    EXPECT_THAT(caller.call("service", "echo", R"({"back":true})").data, ElementsAre(R"({"back":true})"));
}

TEST_F(Bus, ABusThatIsLostInACallEndsTheCallAndIsToldFromWithin) {
    OtherProcess child(socket, serve_child);
    Peer caller(socket);
    static int lost;
    lost = 0;
    caller.get()->connection_lost = [](ubus_context *) { lost++; };
    wait_for(caller, "child");
    Json empty;
    ubus_request call;
    ASSERT_EQ(ubus_invoke_async(caller.get(), caller.id_of("child"), "custom", empty.head(), &call), 0);
    daemon->signal(SIGTERM);
    EXPECT_EQ(ubus_complete_request(caller.get(), &call, 5000), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(daemon->finish(), 0);
    daemon.reset();
}

}  // namespace
}  // namespace arvok
