// The cloud connection: sending and receiving, the Ack-wait and heartbeat timers, disconnecting.

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cloud_client/cloud_client.h"
#include "cloud_client/frame.h"
#include "common/frame_reader.h"
#include "common/text.h"
#include "context.h"
#include "provisioning.h"
#include "utask/utask.h"

namespace arvok {
namespace {

constexpr int ack_wait_ms = 30000;
constexpr int heartbeat_ms = 100000;
constexpr int reconnect_fault_ms = 30000;

// Heartbeats would fill the log.
bool is_heartbeat(const char *text) {
    return std::strstr(text, "Heartbeat") != nullptr;
}

// --- receiving ---

void receive_body(tcp_stream &, char *body, int length) {
    int text_len = 0;
    const text_ptr text = cc_frame_body_text(*cc, body, length, text_len);
    if (!text)
        return;
    if (!is_heartbeat(text.get()))
        qzcap_printf("[INFO] (cloud) <- %s (%d)\n", text.get(), text_len);
    const json_ptr root = json_parse(text.get());
    if (!root) {
        qzcap_printf("[ERROR] (cloud) invalid msg (not json format)\n");
        return;
    }
    cc_handle_msg(root.get());
    if (cc->status == cc_connected)
        uloop_timeout_set(&cc->heartbeat_timer, heartbeat_ms);
}

constexpr frame_protocol protocol{
    .header_size = cc_header_size,
    .body_length = cc_frame_body_length,
    .receive = receive_body,
    .short_header = "[ERROR] (cloud) read header failed, %d\n",
    .waiting = "[ERROR] (cloud) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (cloud) read msg failed, %d %d\n",
};

void read_cb(tcp_stream &stream, int avail) {
    if (!read_frames(protocol, stream, avail, cc->pending_len))
        cc_reconnect(reconnect_fault_ms);
}

void broken_cb(tcp_stream &) {
    qzcap_printf("[ERROR] (cloud) tcp connection broken\n");
    cc_set_status_text("TCP连接断开");
    cc_retry();
}

// --- timers ---

void reconnect_cb(uloop_timeout *) {
    cc_run();
}

void change_cb(uloop_timeout *) {
    cc_disconnect();
    cc_run();
}

void heartbeat_cb(uloop_timeout *) {
    cc_send_heartbeat();
}

void ack_timeout_cb(uloop_timeout *) {
    qzcap_printf("[ERROR] (cloud) wait Ack timeout\n");
    cc_set_status_text("未收到平台响应报文");
    if (cc->status == cc_connected)
        cc_reconnect(reconnect_now_ms);
    else
        cc_retry();
}

}  // namespace

void cc_init() {
    stream_init(cc->stream, read_cb, broken_cb);
    cc->stream.unsent_max = peer_unsent_max;
    cc->reconnect_timer.cb = reconnect_cb;
    cc->change_timer.cb = change_cb;
    cc->heartbeat_timer.cb = heartbeat_cb;
    cc->ack_timer.cb = ack_timeout_cb;
    cc->public_key = platform_public_key;
    cc_load_settings();
}

void cc_done() {
    cc_disconnect();
    uloop_timeout_cancel(&cc->reconnect_timer);
    uloop_timeout_cancel(&cc->change_timer);
    cc->devid.reset();
    cc->devtoken.reset();
}

cc_msg_ptr cc_new_msg(const char *method) {
    auto msg = std::make_unique<cc_msg>();
    msg->root.text("RPCMethod", method).text("MAC", own_mac());
    msg->wait_ack = 1;
    return msg;
}

void cc_write(const cJSON *root) {
    if (cc->stream.fd <= 0)
        return;
    const text_ptr text = json_print(root);
    if (!text)
        return;
    const int len = _strlen(text.get());
    if (!is_heartbeat(text.get()))
        qzcap_printf("[INFO] (cloud) -> %s (%d)\n", text.get(), len);
    const std::vector<char> frame = cc_frame_encode(*cc, text.get(), len);
    if (!frame.empty())
        stream_write(cc->stream, frame.data(), static_cast<int>(frame.size()));
}

void cc_send(void *message) {
    const cc_msg_ptr msg(static_cast<cc_msg *>(message));
    if (cc->stream.fd <= 0 || !msg || !msg->root.get())
        return;
    cc_write(msg->root.get());
    // Also when it could not be written: without its acknowledgement the connection has to start over.
    if (msg->wait_ack) {
        uloop_timeout_cancel(&cc->heartbeat_timer);
        uloop_timeout_set(&cc->ack_timer, ack_wait_ms);
    }
}

int cc_post(cc_msg_ptr msg) {
    if (utask_set(msg.get(), cc_send) < 0) {
        if (msg->wait_ack)
            cc_retry();  // nothing else would go on
        return -1;
    }
    static_cast<void>(msg.release());  // cc_send's from here on
    return 0;
}

void cc_disconnect() {
    uloop_timeout_cancel(&cc->ack_timer);
    uloop_timeout_cancel(&cc->heartbeat_timer);
    if (cc->stream.fd > 0) {
        qzcap_printf("[INFO] (cloud) disconnect fd: %d\n", cc->stream.fd);
        stream_close(cc->stream);
    }
    cc->client_key.reset();
    cc->server_key.reset();
    cc->challenge.reset();
    if (cc->status != cc_bootstrap)
        cc->status = cc_challenge;
}

void cc_reconnect(int ms) {
    cc_disconnect();
    uloop_timeout_set(&cc->reconnect_timer, ms);
}

void cc_set_fail_reason(const char *format, ...) {
    va_list args;
    va_start(args, format);
    format_cut(cc->fail_reason, sizeof cc->fail_reason, format, args);
    va_end(args);
    qzcap_printf("[ERROR] %s\n", cc->fail_reason);
}

void cc_set_status_text(const char *format, ...) {
    va_list args;
    va_start(args, format);
    format_cut(cc->status_text, sizeof cc->status_text, format, args);
    va_end(args);
}

}  // namespace arvok
