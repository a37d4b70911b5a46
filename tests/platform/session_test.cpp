// The bus session and result parsing.
#include "desk.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::test {
namespace {

TEST(Session, MissingBusIsAFailureThatLeavesNothing) {
    setenv("UBUS_SOCKET", "/nowhere/ubus.sock", 1);
    EXPECT_NE(qzcap_ubus_start(0), 0);
    EXPECT_EQ(qzcap_get_ubus_context(), nullptr);
    EXPECT_EQ(qzcap_get_objid_by_id(QZCAP_OBJ_WAN), 0U);
    qzcap_ubus_done();
}

class BusSession : public Desk {};

TEST_F(BusSession, CanBeStartedOnceAndAgain) {
    EXPECT_NE(qzcap_ubus_start(0), 0) << "already started";
    qzcap_ubus_done();
    qzcap_ubus_done();
    ASSERT_EQ(qzcap_ubus_start(0), 0);
    EXPECT_EQ(qzcap_get_objid_by_id(8), 0U);
    EXPECT_EQ(qzcap_get_objid_by_name("qzcapd.none"), 0U);
    EXPECT_EQ(qzcap_get_objid_by_name(nullptr), 0U);
}

TEST_F(BusSession, LossOfTheBusEndsTheLoop) {
    stop_bus();
    uloop_run_timeout(-1);
    EXPECT_EQ(qzcap_get_led_switch(), nullptr);
}

TEST_F(BusSession, SubscriptionsEndWhateverTheyAreEndedWith) {
    const std::uint32_t mesh = qzcap_get_objid_by_id(QZCAP_OBJ_MESH);
    const std::uint32_t roaming = qzcap_get_objid_by_id(QZCAP_OBJ_ROAMING);
    Listener listener;
    ubus_subscriber without_callback{};
    EXPECT_LT(qzcap_ubus_subscribe(&listener, 0), 0);
    EXPECT_LT(qzcap_ubus_subscribe(&listener, 12345), 0);
    EXPECT_LT(qzcap_ubus_subscribe(&without_callback, mesh), 0);
    EXPECT_LT(qzcap_ubus_unsubscribe(&listener, mesh), 0) << "never subscribed";

    ASSERT_EQ(qzcap_ubus_subscribe(&listener, mesh), 0);
    qzcap_ubus_unsubscribe(&listener, roaming);  // of another object: ends it all the same
    patch(R"({"mesh":{"role":"auto"}})");
    Listener later;
    ASSERT_EQ(qzcap_ubus_subscribe(&later, mesh), 0);
    patch(R"({"mesh":{"role":"agent"}})");
    EXPECT_TRUE(run_until([&] { return !later.heard.empty(); }));
    EXPECT_THAT(listener.heard, testing::IsEmpty());
    EXPECT_THAT(later.heard, testing::ElementsAre(R"(mode {"mode":"agent"})"));
    qzcap_ubus_done();  // lets go of `later`, which is still subscribed
}

TEST_F(BusSession, AnswersComeAsTextAndAsBlob) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    const std::uint32_t wifi = qzcap_get_objid_by_name("qzcapd.wifi");
    char *reply = nullptr;
    ASSERT_EQ(ubus_invoke(qzcap_get_ubus_context(), wifi, "get", buf.head, qzcap_data_cb, &reply, 2000), 0);
    EXPECT_STREQ(text_ptr(reply).get(),
                 R"({"result":0,"record":{"wifiswitch":"on","wpsswitch":"off","arvoksync":"on"}})");
    blob_attr *answer = nullptr;
    ASSERT_EQ(ubus_invoke(qzcap_get_ubus_context(), wifi, "get", buf.head, qzcap_data_blob_cb, &answer, 2000),
              0);
    char *rendered = nullptr;
    ubus_request carrier{};
    carrier.priv = &rendered;
    qzcap_data_cb(&carrier, 0, answer);
    EXPECT_THAT(text_ptr(rendered).get(), testing::StartsWith(R"({"result":0,)"));
    qzcap_free(answer);
    blob_buf_free(&buf);
}

TEST(ParseResult, TellsSuccessFromFailure) {
    struct Case {
        const char *reply;
        bool success;
        const char *reason;
    };
    const Case cases[] = {
        {R"({"result":0})", true, nullptr},     {R"({"result":-1,"failreason":"busy"})", false, "busy"},
        {R"({"result":7})", false, "result 7"}, {R"({"failreason":"busy"})", false, "malformed answer"},
        {nullptr, false, "no answer"},
    };
    for (const Case &item : cases) {
        char *reason = const_cast<char *>("stale");
        EXPECT_EQ(qzcap_parse_result_and_failreason(item.reply, &reason) == 0, item.success) << item.reply;
        EXPECT_STREQ(reason, item.reason);
        qzcap_free(reason);
        EXPECT_EQ(qzcap_parse_result_and_failreason(item.reply, nullptr) == 0, item.success);
    }
}

}  // namespace
}  // namespace arvok::test
