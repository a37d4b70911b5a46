// Subscriptions to objects that come and go.
#include "platform/subscription.h"

#include <optional>

#include "../loop.h"
#include "desk.h"

namespace arvok::test {
namespace {

using platform::object_watch;
using platform::subscription;

/// Who subscribes: what was heard, and how often it was told to catch up.
struct Subscriber {
    int take(std::string_view method, blob_attr *) {
        heard.emplace_back(method);
        return 0;
    }
    bool catch_up() {
        returns++;
        return returns > failing;
    }

    std::vector<std::string> heard;
    int returns = 0;
    int failing = 0;  ///< so many calls of the platform fail
};

/// An object of another client of the bus.
class Foreign {
  public:
    explicit Foreign(const std::string &socket, const char *name = "foreign")
        : bus_(ubus_connect(socket.c_str())) {
        type_.name = name;
        object_.name = name;
        object_.type = &type_;
    }
    ~Foreign() { ubus_free(bus_); }
    Foreign(const Foreign &) = delete;
    Foreign &operator=(const Foreign &) = delete;

    void come() { ASSERT_EQ(ubus_add_object(bus_, &object_), 0); }
    void go() { ASSERT_EQ(ubus_remove_object(bus_, &object_), 0); }
    void look_up() {
        std::uint32_t id;
        ASSERT_EQ(ubus_lookup_id(bus_, object_.name, &id), 0);
    }
    void notify(const char *method) { ASSERT_EQ(ubus_notify(bus_, &object_, method, nullptr, -1), 0); }

  private:
    ubus_context *bus_;
    ubus_object_type type_{};
    ubus_object object_{};
};

class Subscriptions : public Desk {
  protected:
    void SetUp() override {
        Desk::SetUp();
        watch_.emplace();
    }
    void TearDown() override {
        watch_.reset();
        Desk::TearDown();
    }
    void notify_wan() { emulator("notify", R"({"object":6,"method":"m","message":{}})"); }

    std::optional<object_watch> watch_;
    Subscriber one_, other_;
};

TEST_F(Subscriptions, AreRenewedWhenTheirObjectReturns) {
    other_.failing = 2;
    subscription by_number(*watch_, QZCAP_OBJ_WAN, bind<&Subscriber::take>(one_),
                           bind<&Subscriber::catch_up>(one_));
    subscription by_name(*watch_, std::string("qzcapd.wan"), bind<&Subscriber::take>(other_),
                         bind<&Subscriber::catch_up>(other_));
    EXPECT_TRUE(by_number.start());
    stop_platform();
    ASSERT_TRUE(run_until([] { return platform::object_id(QZCAP_OBJ_WAN) == 0; }));
    EXPECT_FALSE(by_name.start()) << "absent at first";
    start_platform(HOME_STATE);
    ASSERT_TRUE(run_until([&] { return other_.returns == 3; }));
    EXPECT_EQ(one_.returns, 1);
    notify_wan();
    EXPECT_TRUE(run_until([&] { return !one_.heard.empty() && !other_.heard.empty(); }));
    EXPECT_TRUE(by_number.stop(platform::object_id(QZCAP_OBJ_WAN)));
    EXPECT_TRUE(by_name.stop(platform::object_id("qzcapd.wan")));
    EXPECT_EQ(one_.heard.size() + other_.heard.size(), 2U);
}

TEST_F(Subscriptions, EndWhileTheirObjectIsAway) {
    subscription kept(*watch_, QZCAP_OBJ_WAN, bind<&Subscriber::take>(one_));
    std::optional<subscription> stopped(std::in_place, *watch_, QZCAP_OBJ_WAN,
                                        bind<&Subscriber::take>(other_)),
        destroyed(std::in_place, *watch_, QZCAP_OBJ_WAN, bind<&Subscriber::take>(other_));
    for (subscription *each : {&*stopped, &*destroyed, &kept})
        EXPECT_TRUE(each->start());
    stop_platform();
    ASSERT_TRUE(run_until([] { return platform::object_id(QZCAP_OBJ_WAN) == 0; }));
    EXPECT_FALSE(stopped->stop(platform::object_id(QZCAP_OBJ_WAN)));
    destroyed.reset();
    start_platform(HOME_STATE);
    ASSERT_TRUE(run_until([&] {
        notify_wan();
        return !one_.heard.empty();
    }));
    EXPECT_THAT(other_.heard, testing::IsEmpty());
}

TEST_F(Subscriptions, SurviveAnObjectThatFlaps) {
    Foreign foreign(socket());
    subscription to(*watch_, std::string("foreign"), bind<&Subscriber::take>(one_),
                    bind<&Subscriber::catch_up>(one_));
    EXPECT_FALSE(to.start());
    for (int i = 0; i < 50; i++) {
        foreign.come();
        const int before = one_.returns;
        if (i % 10 == 9) {  // else it is gone again before anybody looks
            ASSERT_TRUE(run_until([&] { return one_.returns > before; }));
        }
        foreign.go();
        run_loop_for(1);
    }
    foreign.come();
    const int before = one_.returns;
    ASSERT_TRUE(run_until([&] { return one_.returns > before; }));
    foreign.notify("still");
    ASSERT_TRUE(run_until([&] { return !one_.heard.empty(); }));
    EXPECT_THAT(one_.heard, testing::ElementsAre("still"));
}

// While nobody reads, the daemon keeps what it has room for. An answer is not among what it drops, and who is
// quiet loses nothing by those who are not.
TEST_F(Subscriptions, OfAConnectionOfTheirOwnBeginAndEndBehindAnyNumberOfNotifications) {
    Foreign noisy(socket(), "noisy"), other(socket(), "other");
    noisy.come();
    other.come();
    platform::own_connection own;
    subscription to_noisy(*watch_, own, std::string("noisy"), bind<&Subscriber::take>(one_)),
        to_other(*watch_, own, std::string("other"), bind<&Subscriber::take>(other_)),
        again(*watch_, own, std::string("noisy"), bind<&Subscriber::take>(one_));
    const std::uint32_t noisy_id = platform::object_id("noisy");
    ASSERT_TRUE(to_noisy.start());
    const auto make_noise = [&] {
        for (int i = 0; i < 20000; i++)
            noisy.notify("noise");
        noisy.look_up();  // the daemon has read it
    };
    make_noise();
    EXPECT_EQ(platform::object_id("nobody"), 0U) << "no part of it on the platform's connection";
    EXPECT_THAT(one_.heard, testing::IsEmpty());
    EXPECT_TRUE(to_other.start());
    EXPECT_GT(one_.heard.size(), 100U);
    EXPECT_LT(one_.heard.size(), 20000U);
    // More than is read in one piece.
    for (int i = 0; i < 10; i++) {
        make_noise();
        EXPECT_TRUE(again.start());
        make_noise();
        EXPECT_TRUE(again.stop(noisy_id));
        other.notify("quiet");
        ASSERT_TRUE(run_until([&] { return other_.heard.size() == static_cast<std::size_t>(i) + 1; }));
    }
    make_noise();
    EXPECT_TRUE(to_other.stop(platform::object_id("other")));
    EXPECT_TRUE(to_noisy.stop(noisy_id));
}

}  // namespace
}  // namespace arvok::test
