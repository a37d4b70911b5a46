// The gateway link's connection: address, sending and receiving, timers and the policy of reconnecting.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "arvok_client/arvok_client.h"
#include "arvok_client/frame.h"
#include "common/clock.h"
#include "common/frame_reader.h"
#include "common/network.h"
#include "common/text.h"
#include "context.h"
#include "utask/utask.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok {
namespace {

constexpr char default_gateway[] = "192.168.1.1";
constexpr char link_port[] = "32768";
constexpr char foreign_client[] = "/usr/bin/kestrau_clt";

constexpr int reconnect_ms = 10000;
constexpr int reconnect_no_device_ms = 30000;
constexpr int reconnect_refused_ms = 4 * 3600 * 1000;
constexpr int reconnect_sync_ms = 1000;
constexpr int keepalive_ack_ms = 20000;

constexpr long short_connection_s = 30;
constexpr int short_connections_max = 3;

void fail() {
    arvok_disconnect();
    uloop_timeout_set(&ec->reconnect_timer, reconnect_ms);
}

// --- connecting ---

// Where another client may own the link, a setting says whether this one runs.
bool link_enabled() {
    if (access(foreign_client, F_OK) != 0)
        return true;
    const handle<std::FILE, &::pclose> output(popen("uci get network.globals.arvok_enable", "re"));
    if (!output)
        return false;
    char line[8] = "";
    const char *first = std::fgets(line, sizeof line, output.get());
    const int enable = first ? std::atoi(first) : 0;
    qzcap_printf("[DEBUG] arvok_enable uci: %d\n", enable);
    return enable != 0;
}

// The address of this attempt: the user's, or in turn the default and the one found. Null when there is none,
// with the next attempt armed.
const char *gateway_address() {
    if (g_ctx.gw_addr_set)
        return g_ctx.gw_addr;
    if (!g_ctx.gw_default_tried) {
        g_ctx.gw_default_tried = 1;
        return default_gateway;
    }
    g_ctx.gw_default_tried = 0;
    g_ctx.devinfo_valid = 0;
    if (update_dev_info() != 0) {
        qzcap_printf("[WARNING] (arvok) devinfo get failed\n");
        uloop_timeout_set(&ec->reconnect_timer, reconnect_no_device_ms);
        return nullptr;
    }
    const char *address = _get_gateway_ip(g_ctx.is_router, g_ctx.devinfo->lan_source);
    if (!*address) {
        uloop_timeout_set(&ec->reconnect_timer, reconnect_ms);
        return nullptr;
    }
    return address;
}

void connect_link() {
    if (!link_enabled()) {
        qzcap_printf("[DEBUG] arvok disabled\n");
        return;
    }
    uloop_timeout_cancel(&ec->reconnect_timer);
    const char *address = gateway_address();
    if (!address)
        return;
    qzcap_printf("[INFO] (arvok) connect \"%s:%s\" (%d)\n", address, link_port, g_ctx.gw_default_tried);

    // Numeric, because resolving a name would stop the loop; a text that is no address leaves errno as it is.
    errno = EINVAL;
    const int fd = usock(USOCK_TCP | USOCK_NONBLOCK | USOCK_NUMERIC, address, link_port);
    if (fd <= 0) {
        qzcap_printf("[ERROR] (arvok) create socket failed: %s\n", std::strerror(errno));
        uloop_timeout_set(&ec->reconnect_timer, reconnect_ms);
        return;
    }
    stream_open(ec->stream, fd);
    ec->pending_len = 0;
    ec->seq = 0;
    ec->keepalive_seq = -1;
    send_arvok_keyngreq();
}

// --- receiving ---

// What is not JSON ends the connection.
void receive_body(tcp_stream &, char *body, int length) {
    text_ptr text = frame_body_text(body, length, ec->dh.aes_key.get());
    if (!text)
        return;
    const json_ptr root = json_parse(text.get());
    if (!arvok_is_keepalive_ack(root.get()))
        qzcap_printf("[INFO] (arvok) <- %s (%d)\n", text.get(), _strlen(text.get()));
    text.reset();
    if (!root) {
        qzcap_printf("[ERROR] (arvok) invalid msg (not json format)\n");
        return fail();
    }
    reply_context context{0, 1, nullptr};
    handle_arvok_msg(root.get(), context);
}

constexpr frame_protocol protocol{
    .header_size = frame_header_size,
    .body_length = frame_body_length,
    .receive = receive_body,
    .short_header = "[ERROR] (arvok) read header failed, %d\n",
    .waiting = "[INFO] (arvok) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (arvok) read msg failed, %d %d\n",
    .forgets_length = true,
};

void read_cb(tcp_stream &stream, int avail) {
    if (!read_frames(protocol, stream, avail, ec->pending_len))
        fail();
}

void broken_cb(tcp_stream &) {
    qzcap_printf("[ERROR] (arvok) tcp connection broken\n");
    if (ec->connect_time != 0) {
        if (_get_uptime() - ec->connect_time < short_connection_s) {
            ec->short_conn_count++;
            qzcap_printf("[WARNING] (arvok) connect time < 30s, count %d\n", ec->short_conn_count);
        } else {
            ec->short_conn_count = 0;
        }
        ec->connect_time = 0;
    }
    if (ec->short_conn_count < short_connections_max)
        return fail();
    qzcap_printf("[WARNING] (arvok) refused count >= 3, reconnect after 4 hours\n");
    arvok_disconnect();
    uloop_timeout_set(&ec->reconnect_timer, reconnect_refused_ms);
    ec->short_conn_count = 0;
}

// --- timers ---

void reconnect_cb(uloop_timeout *) {
    connect_link();
}

void ack_timeout_cb(uloop_timeout *) {
    qzcap_printf("[ERROR] (arvok) wait ack timeout\n");
    fail();
}

void keepalive_cb(uloop_timeout *) {
    ec->keepalive_seq = ec->seq;
    arvok_send(arvok_msg_new("keepalive", 0).release());
    uloop_timeout_set(&ec->keepalive_ack_timer, keepalive_ack_ms);
}

void keepalive_ack_timeout_cb(uloop_timeout *) {
    qzcap_printf("[ERROR] (arvok) wait keepalive ack timeout\n");
    fail();
}

}  // namespace

void ec_init() {
    stream_init(ec->stream, read_cb, broken_cb);
    ec->stream.unsent_max = peer_unsent_max;
    ec->reconnect_timer.cb = reconnect_cb;
    ec->ack_timer.cb = ack_timeout_cb;
    ec->keepalive_timer.cb = keepalive_cb;
    ec->keepalive_ack_timer.cb = keepalive_ack_timeout_cb;
}

void ec_run() {
    connect_link();
}

void ec_done() {
    arvok_disconnect();
    ec->vsie_list.clear();
    ec->first_online_list.clear();
    for (bus_subscription &node : ec->bus_subscriptions)
        qzcap_ubus_unsubscribe(&node.subscriber, qzcap_get_objid_by_name(node.object));
    ec->bus_subscriptions.clear();
}

void ec_arvoksync_on(void *) {
    qzcap_printf("[DEBUG] %s (%d)", "ec_arvoksync_on", __LINE__);
    arvok_disconnect();
    uloop_timeout_set(&ec->reconnect_timer, reconnect_sync_ms);
}

arvok_msg_ptr arvok_msg_new(const char *type, std::int32_t ack_timeout) {
    auto msg = std::make_unique<arvok_msg>();
    msg->root.text("type", type).number("sequence", ec->seq++).text("mac", own_mac());
    msg->ack_timeout = ack_timeout;
    return msg;
}

void arvok_send(void *message) {
    const arvok_msg_ptr msg(static_cast<arvok_msg *>(message));
    if (ec->stream.fd <= 0 || !msg || !msg->root.get())
        return;
    const text_ptr text = json_print(msg->root.get());
    if (!text)
        return;
    const int len = _strlen(text.get());
    if (_strcmp(json_text(msg->root.get(), "type"), "keepalive") != 0)
        qzcap_printf("[INFO] (arvok) -> %s (%d)\n", text.get(), len);
    const std::vector<char> frame = frame_encode(text.get(), len, ec->dh.aes_key.get());
    if (frame.empty())
        return;
    stream_write(ec->stream, frame.data(), static_cast<int>(frame.size()));
    if (msg->ack_timeout > 0)
        uloop_timeout_set(&ec->ack_timer, msg->ack_timeout);
}

int arvok_post(arvok_msg_ptr msg) {
    if (utask_set(msg.get(), arvok_send) < 0)
        return -1;
    static_cast<void>(msg.release());  // arvok_send's from here on
    return 0;
}

void arvok_send_event(json_ptr item) {
    arvok_msg_ptr msg = arvok_msg_new("event", 0);
    json_ptr data(cJSON_CreateArray());
    json_append(data.get(), std::move(item));
    msg->root.add("data", std::move(data));
    arvok_send(msg.release());
}

bool arvok_is_keepalive_ack(const cJSON *root) {
    const cJSON *sequence = json_member(root, "sequence");
    return cJSON_IsNumber(sequence) && sequence->valueint == ec->keepalive_seq;
}

void arvok_disconnect() {
    ec->linked = 0;
    uloop_timeout_cancel(&ec->ack_timer);
    uloop_timeout_cancel(&ec->keepalive_ack_timer);
    uloop_timeout_cancel(&ec->keepalive_timer);
    if (ec->stream.fd > 0) {
        qzcap_printf("[INFO] (arvok) disconnect fd: %d\n", ec->stream.fd);
        stream_close(ec->stream);
    }
    free_dh_key(ec->dh);
}

}  // namespace arvok
