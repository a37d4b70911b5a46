// Key negotiation, keepalives, and what becomes of messages that are not what they should be.

#include "link_fixture.h"

namespace arvok {
namespace {

TEST_F(Link, MessagesThatAreNoRequestsAreOnlyLogged) {
    connect();
    log();
    for (const char *body : {"[1,2,3]", "\"a text\"", R"({"type":5,"x":1})", R"({"type":"CFG"})"})
        send_bytes(frame(body) + frame(probe("next")));
    expect_log("[ERROR] (arvok) unknown type: CFG\n");
    turn();
    EXPECT_NE(log().find("[ERROR] (arvok) type not found\n"), std::string::npos);
    EXPECT_TRUE(connected());
    EXPECT_TRUE(ec->ack_timer.pending);  // none of them ends the wait for the key answer
}

TEST_F(Link, TheKeyAnswerIsAwaitedForFiveSeconds) {
    connect();
    expect_armed(ec->ack_timer, 5000);
    for (const char *rejected : {R"({"type":"keyngack"})", R"({"type":"keyngack","keymode":"DH"})",
                                 R"({"type":"keyngack","keymode":7})"})
        send_bytes(frame(rejected));
    expect_log("[ERROR] unsupported keymode\n");
    expect_log("[ERROR] invalid keymode\n");
    EXPECT_TRUE(ec->ack_timer.pending);
    EXPECT_EQ(ec->connect_time, 0);
    fire(ec->ack_timer);
    expect_log("[ERROR] (arvok) wait ack timeout\n");
    expect_reconnection(10000);
}

TEST_F(Link, NegotiationRegistersAndStartsTheKeepalives) {
    connect();
    const dh_key key = negotiate();
    EXPECT_EQ(ec->linked, 1);
    EXPECT_EQ(ec->reports_pending, 1);
    EXPECT_FALSE(ec->ack_timer.pending);  // the dispatcher took the registration's deadline back
    expect_armed(ec->keepalive_timer, 1000);
    log();

    uloop_timeout_set(&ec->ack_timer, 5000);
    for (int sequence = 3; sequence < 6; sequence++) {
        fire(ec->keepalive_timer);
        EXPECT_EQ(receive(key.aes_key.get()), R"({"type":"keepalive","sequence":)" +
                                                  std::to_string(sequence) + R"(,"mac":"021122334455"})");
        expect_armed(ec->keepalive_ack_timer, 20000);
        EXPECT_FALSE(ec->keepalive_timer.pending);
        const std::string ack = R"({"type":"ack","sequence":)" + std::to_string(sequence) + "}";
        const std::vector<char> sealed =
            frame_encode(ack.c_str(), static_cast<int>(ack.size()), key.aes_key.get());
        send_bytes({sealed.begin(), sealed.end()});
        pump([] { return ec->keepalive_timer.pending; });
        expect_armed(ec->keepalive_timer, 5000);
        EXPECT_FALSE(ec->keepalive_ack_timer.pending);
    }
    turn();
    EXPECT_EQ(log(), "");  // keepalives and their acknowledgements are never logged
    EXPECT_EQ(ec->reports_pending, 1);
    EXPECT_TRUE(ec->ack_timer.pending);  // what another message waits for is not theirs to end
    const std::string ack = R"({"type":"ack","sequence":2})";
    const std::vector<char> sealed =
        frame_encode(ack.c_str(), static_cast<int>(ack.size()), key.aes_key.get());
    send_bytes({sealed.begin(), sealed.end()});
    pump([] { return !ec->ack_timer.pending; });
    EXPECT_EQ(ec->reports_pending, 0);

    fire(ec->keepalive_timer);
    fire(ec->keepalive_ack_timer);
    expect_log("[ERROR] (arvok) wait keepalive ack timeout\n");
    receive(key.aes_key.get());
    expect_reconnection(10000);
    connect();
    EXPECT_EQ(ec->keepalive_seq, -1);  // the old number must not pass for an acknowledgement on the new link
}

TEST_F(Link, ADhAnswerThatDoesNotFitIsNotConsumed) {
    connect();
    send_bytes(frame(R"({"type":"keyngack","keymode":"dh"})"));
    receive();
    struct {
        const char *data, *line;
    } const rejected[] = {
        {"{}", "[ERROR] invalid dh_key\n"},
        {"5", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":5})", "[ERROR] invalid dh_key\n"},
        {R"({"dh_key":"Aw==","dh_p":"Aw=="})", "[ERROR] invalid dh_p\n"},
        {R"({"dh_key":"Aw==","dh_g":"Aw=="})", "[ERROR] invalid dh_g\n"},
    };
    for (const auto &r : rejected) {
        log();
        send_bytes(frame(R"({"type":"dh","data":)" + std::string(r.data) + "}"));
        expect_log(r.line);
        EXPECT_EQ(ec->linked, 0);
    }
    // An echo of another type is ignored; without a key from it the link goes on in the clear.
    send_bytes(frame(R"({"type":"dh","data":{"dh_key":"????","dh_p":7}})"));
    const json_ptr dev_reg = json_parse(receive().c_str());
    EXPECT_STREQ(json_text(dev_reg.get(), "type"), "dev_reg");
    EXPECT_EQ(_get_json_int(json_member(dev_reg.get(), "data"), "supportMesh", -1), 0);
    EXPECT_EQ(json_member(json_member(dev_reg.get(), "data"), "mapAlmac"), nullptr);
    EXPECT_EQ(ec->dh.aes_key, nullptr);
}

TEST_F(Link, ErrorsAreRecordedCutAndLogged) {
    arvok_set_error(10004, "%s failed: %s", "call", std::string(300, 'x').c_str());
    EXPECT_EQ(ec->errcode, 10004);
    EXPECT_EQ(std::string(ec->errmsg), "call failed: " + std::string(255 - 13, 'x'));
    EXPECT_NE(log_text().find("[ERROR] (10004) call failed: xxx"), std::string::npos);
    for (const auto &[character, bytes] :
         {std::pair{"\u00e9", 254u}, {"\u20ac", 255u}, {"\U0001f600", 252u}}) {
        std::string text;
        while (text.size() < 300)
            text += character;
        arvok_set_error(10004, "%s", text.c_str());
        EXPECT_EQ(std::string(ec->errmsg), text.substr(0, bytes));  // no half characters
    }
    EXPECT_STREQ(json_print(arvok_error_item(10001, "unrecognized request").get()).get(),
                 R"({"errmsg":"unrecognized request"})");
    EXPECT_EQ(ec->errcode, 10001);
}

TEST_F(Link, MessagesThroughTheCloudNeverTouchTheLinksHandshake) {
    ec->reports_pending = 1;
    for (const char *message :
         {R"({"type":"keyngack","keymode":"dh"})", R"({"type":"dh","data":{"dh_key":"Aw=="}})",
          R"({"type":"ack","sequence":-1})", R"({"type":"ack","sequence":5})"}) {
        reply_context context{1, 0, nullptr};
        EXPECT_EQ(handle_arvok_msg(json_parse(message).get(), context), 0) << message;
        EXPECT_FALSE(context.reply);
    }
    EXPECT_FALSE(ec->keepalive_timer.pending);
    EXPECT_EQ(ec->linked, 0);
    EXPECT_EQ(ec->reports_pending, 1);
    EXPECT_EQ(ec->connect_time, 0);
    EXPECT_EQ(log(), "");
}

TEST_F(Link, RequestsThroughTheCloudLeaveTheirReplyAndSendNothing) {
    connect();
    struct {
        const char *message;
        std::int32_t sync_on, allow_bridge;
        const char *reply;
    } const cases[] = {
        {R"({"type":"control","data":[{"command":"reboot"}]})", 1, 0,
         R"({"type":"ack","sequence":0,"mac":"021122334455","errcode":0,"errmsg":""})"},
        {R"({"type":"control","sequence":"7","data":[]})", 1, 1,
         R"({"type":"ack","sequence":0,"mac":"021122334455","errcode":0,"errmsg":""})"},
        {R"({"type":"get_status","sequence":7,"get":[{"name":"arvokstat"}]})", 1, 0,
         R"({"type":"status","sequence":7,"mac":"021122334455","errcode":0,"status":)"
         R"({"arvokstat":{"connectedGateway":"no"}}})"},
        {R"({"type":"cfg","set":{"eventsub":["vsie"]}})", 0, 1,
         R"({"type":"ack","sequence":0,"mac":"021122334455","errcode":0,"errmsg":""})"},
    };
    log();
    for (const auto &c : cases) {
        ec->sync_on = c.sync_on;
        reply_context context{1, c.allow_bridge, nullptr};
        EXPECT_EQ(handle_arvok_msg(json_parse(c.message).get(), context), 1) << c.message;
        EXPECT_STREQ(json_print(context.reply.get()).get(), c.reply);
    }
    EXPECT_EQ(ec->event_mask, event_vsie);
    turn();
    EXPECT_EQ(log(), "");  // nothing was sent, and no action was tried

    ec->sync_on = 0;
    send_bytes(frame(R"({"type":"cfg","sequence":1,"mac":"x","set":{"eventsub":[]}})"));
    EXPECT_EQ(
        receive(),
        R"({"type":"ack","sequence":1,"mac":"021122334455","errcode":10003,"errmsg":"arvoksync is off"})");
    EXPECT_EQ(ec->event_mask, event_vsie);
}

TEST_F(Link, OnlyConsumedMessagesEndTheWaitForAnAnswer) {
    connect();
    for (const char *refused :
         {R"({"type":"control","sequence":1,"mac":"x"})", R"({"type":"cfg","sequence":1,"mac":"x"})",
          R"({"type":"get_status","mac":"x","get":[]})"}) {
        reply_context context{0, 1, nullptr};
        EXPECT_EQ(handle_arvok_msg(json_parse(refused).get(), context), 0) << refused;
        EXPECT_TRUE(ec->ack_timer.pending);
    }
    reply_context context{0, 1, nullptr};
    EXPECT_EQ(handle_arvok_msg(json_parse(R"({"type":"qlink"})").get(), context), 1);
    EXPECT_FALSE(ec->ack_timer.pending);
    EXPECT_FALSE(context.reply);
}

TEST_F(Link, EveryMessageMakesTheCachedRecordsStale) {
    for (const char *message : {R"({"type":"unknown"})", R"({"no":"type"})", "[]"}) {
        g_ctx.devinfo_valid = g_ctx.waninfo_valid = g_ctx.wifiinfo_valid = g_ctx.diag_valid = 1;
        ec->actions = 7;
        arvok_set_error(10001, "of the message before");
        reply_context context{0, 1, nullptr};
        handle_arvok_msg(json_parse(message).get(), context);
        EXPECT_EQ(g_ctx.devinfo_valid + g_ctx.waninfo_valid + g_ctx.wifiinfo_valid + g_ctx.diag_valid, 0)
            << message;
        EXPECT_EQ(ec->actions, 0u);
        EXPECT_EQ(ec->errcode, 0);
        EXPECT_STREQ(ec->errmsg, "");
    }
}

TEST_F(Link, ReportsSayWhatChangedAndAreOnlySentOnceRegistered) {
    const json_ptr down = json_parse(R"({"status":"down","ipaddr":"1.2.3.4"})"),
                   moved = json_parse(R"({"ipaddr":"1.2.3.5"})");
    send_arvok_wan_report(down.get());
    send_arvok_lan_report();
    EXPECT_EQ(ec->seq, 0);  // nothing was built

    connect();
    const dh_key key = negotiate();
    g_ctx.waninfo.reset(static_cast<qzcap_waninfo *>(qzcap_calloc(1, sizeof(qzcap_waninfo))));
    g_ctx.waninfo->dns1 = qzcap_strdup("9.9.9.9");
    send_arvok_wan_report(down.get());
    send_arvok_wan_report(moved.get());
    send_arvok_lan_report();  // the hosts cannot be listed here
    EXPECT_TRUE(log_text().ends_with("[ERROR] qzcap_list_laninfo failed"));
    EXPECT_EQ(receive(key.aes_key.get()),
              R"({"type":"wan_report","sequence":3,"mac":"021122334455","status":)"
              R"({"status":"down","ipaddr":"1.2.3.4","dns":["9.9.9.9",""]}})");
    EXPECT_EQ(receive(key.aes_key.get()),
              R"({"type":"wan_report","sequence":4,"mac":"021122334455","status":)"
              R"({"ipaddr":"1.2.3.5","status":"ip_changed","dns":["9.9.9.9",""]}})");
    EXPECT_EQ(ec->seq, 6);  // the discarded report had its number
}

TEST_F(Link, FirstOnlineTimesAreKeptForEachMacAndBounded) {
    static std::time_t now;
    const auto clock = wall_clock;
    wall_clock = [] { return now++; };
    now = 100;
    EXPECT_EQ(arvok_first_online("02:AA:00:00:00:01"), 100);
    EXPECT_EQ(arvok_first_online(nullptr), 101);
    EXPECT_EQ(arvok_first_online("02:aa:00:00:00:01"), 100);
    EXPECT_EQ(arvok_first_online(nullptr), 101);
    for (std::size_t i = 0; i < 2 * first_online_max; i++) {
        arvok_first_online(std::to_string(i).c_str());
        EXPECT_EQ(arvok_first_online("02:AA:00:00:00:01"), 100);  // a host that stays keeps its time
    }
    EXPECT_EQ(ec->first_online_list.size(), first_online_max);
    EXPECT_EQ(arvok_first_online(std::to_string(2 * first_online_max - 1).c_str()), now - 1);
    wall_clock = clock;
}

}  // namespace
}  // namespace arvok
