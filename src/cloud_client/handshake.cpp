// Enrolment, one message at a time:
//
//   bootstrap server   Boot -> the business servers' addresses
//   business server    GetChallengeCode -> (no identity yet: Activate -> identity, GetChallengeCode ->)
//                      Connect -> server key, Heartbeat -> ...
//
// What a handler sends goes out on the loop's next turn, when the acknowledgement at hand is done with.

#include <cstdio>

#include "cloud_client/cloud_client.h"
#include "common/identity.h"
#include "common/network.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr char device_type[] = "Arvok AP";
constexpr char platform_id[] = "SMARTAP";
constexpr char protocol_version[] = "3.0";
constexpr char bus_interface_version[] = "V2019.1.0";

constexpr int serial_size = 34;
constexpr int result_unknown_device = -2;

constexpr int change_server_ms = 1000;

// --- messages ---

void add_device(json_object &message) {
    const qzcap_devinfo &device = *g_ctx.devinfo;
    message.text("Vendor", device.vendor)
        .text("Model", device.model)
        .text("FirmwareVer", device.swversion)
        .text("HardwareVer", device.hdversion);
}

// A new key for the answer to this message.
const char *new_client_key() {
    cc->client_key = _get_random_string(cc_key_size);
    return cc->client_key.get();
}

// The serial number, or one made of the MAC where the device has none of the platform's form.
const char *serial_number(char (&made)[serial_size + 1]) {
    const char *sn = g_ctx.devinfo->sn;
    if (_strlen(sn) == serial_size)
        return sn;
    std::snprintf(made, sizeof made, "FFFFFFFFFFFFFFFFFFFFFF%s", text_or_empty(own_mac()));
    return made;
}

void send_boot() {
    cc_msg_ptr msg = cc_new_msg("Boot");
    const char reason[] = {static_cast<char>('0' + cc->boot_reason), '\0'};
    msg->root.text("CKey", new_client_key());
    add_device(msg->root);
    msg->root.text("DevType", device_type).text("bootstrap", reason).text("QZEI", g_ctx.devinfo->QZEI);
    cc_post(std::move(msg));
}

void send_get_challenge() {
    cc_post(cc_new_msg("GetChallengeCode"));
}

void send_activate() {
    char made[serial_size + 1];
    cc_msg_ptr msg = cc_new_msg("Activate");
    add_device(msg->root);
    msg->root.text("SN", serial_number(made))
        .text("CKey", new_client_key())
        .text("ChallengeCode", cc->challenge.get())
        .text("IPAddr", _get_socket_ip(cc->stream.fd))
        .text("CloudClientVer", g_ctx.version)
        .text("MiddleWareVer", get_tul_version())
        .text("MiddleWareBakVer", "")
        .text("LOID", "")
        .text("PlatformID", platform_id)
        .text("QZEI", g_ctx.devinfo->QZEI);
    cc_post(std::move(msg));
}

void send_connect() {
    g_ctx.devinfo_valid = 0;
    update_dev_info();
    g_ctx.waninfo_valid = 0;
    update_wan_info();
    cc_msg_ptr msg = cc_new_msg("Connect");
    add_device(msg->root);
    msg->root.text("DevID", cc->devid.get())
        .text("DevToken", cc->devtoken.get())
        .text("CKey", new_client_key())
        .text("ChallengeCode", cc->challenge.get())
        .text("IPAddr", _get_socket_ip(cc->stream.fd))
        .text("UPPER_MAC", _get_gateway_mac(g_ctx.is_router, g_ctx.devinfo->lan_source))
        .text("CloudClientVer", g_ctx.version)
        .text("MiddleWareVer", get_tul_version())
        .text("MiddleWareBakVer", "")
        .text("LOID", "")
        .text("PlatformID", platform_id)
        .text("upgrade_ID", "")
        .number("Flag", 0)
        .text("Version", protocol_version)
        .text("DBusInterfaceVersion", bus_interface_version);
    if (g_ctx.waninfo)
        msg->root.text("PPPoEName", g_ctx.waninfo->pppoe_user);
    msg->root.text("QZEI", g_ctx.devinfo->QZEI);
    cc_post(std::move(msg));
}

// --- acknowledgements ---

// Reads "Result" into the record; true when it is a failure, which people are told about.
bool failed(const cJSON *root) {
    cc->result = _get_json_int(root, "Result", -1);
    if (cc->result == 0)
        return false;
    cc_set_status_text("平台返回%d", cc->result);
    return true;
}

// A text member of exactly `size` characters, or null.
text_ptr exact_text(const cJSON *root, const char *key, std::size_t size) {
    text_ptr text = _get_json_str(root, key);
    return _strlen(text.get()) == static_cast<int>(size) ? std::move(text) : nullptr;
}

// Takes a named business server over into its place; true when that changes something.
bool store_business_server(const cJSON *named, server &place) {
    server found{};
    _strlcpy(found.host, json_text(named, "ServerAddr"), sizeof found.host);
    std::snprintf(found.port, sizeof found.port, "%d", _get_json_int(named, "ServerPort", 0));
    found.state = server_untried;
    if (!is_valid_server(found) || same_server(found, place))
        return false;
    place = found;
    return true;
}

// Where the bootstrap server's answer leads. A list that was asked for is taken even when it is the old one.
void leave_bootstrap(bool changed) {
    if (!changed && cc->boot_reason != boot_requested) {
        qzcap_printf("[INFO] abi server is not updated\n");
        cc_set_status_text("TCP连接断开");
        cc_wait_long(server_abi);
    } else if (!same_server(cc->abi[0], cc->bss)) {
        qzcap_printf("[INFO] reconnect abi server\n");
        cc_reconnect(reconnect_now_ms);
    } else {
        qzcap_printf("[INFO] curr and bss are the same\n");
        cc->status = cc_challenge;
        send_get_challenge();
    }
}

}  // namespace

void cc_start_exchange() {
    if (cc->status == cc_bootstrap)
        send_boot();
    else if (cc->status == cc_challenge)
        send_get_challenge();
}

int cc_boot_ack(const cJSON *root) {
    if (failed(root)) {
        cc_wait_long(server_bss);
        return 1;
    }
    const cJSON *servers = json_member(root, "BizPlat");
    if (!cJSON_IsArray(servers)) {
        qzcap_printf("[ERROR] invalid BizPlat\n");
        return 0;
    }
    if (!servers->child) {
        qzcap_printf("[ERROR] BizPlat is null\n");
        return 0;
    }
    bool changed = false;
    std::size_t count = 0;
    for (const cJSON *named = servers->child; named && count < abi_max; named = named->next, count++) {
        server &place = cc->abi[count];
        changed |= store_business_server(named, place);
        qzcap_printf("[INFO] abi[%d]:    %s:%s\n", static_cast<int>(count), place.host, place.port);
    }
    for (; count < abi_max; count++)
        cc->abi[count] = {};
    set_server_info();
    cc->server_kind = server_abi;
    leave_bootstrap(changed);
    cc->boot_reason = boot_answered;
    return 1;
}

int cc_challenge_ack(const cJSON *root) {
    if (failed(root)) {
        cc_wait_long(server_abi);
        return 1;
    }
    cc->challenge = exact_text(root, "ChallengeCode", challenge_size);
    if (!cc->challenge) {
        qzcap_printf("[ERROR] invalid ChallengeCode\n");
        return 0;
    }
    if (cc->activated) {
        cc->status = cc_connecting;
        send_connect();
    } else {
        cc->status = cc_activating;
        send_activate();
    }
    return 1;
}

int cc_activate_ack(const cJSON *root) {
    if (failed(root)) {
        cc_wait_long(server_abi);
        return 1;
    }
    cc->devtoken = _get_json_str(root, "DevToken");
    cc->devid = _get_json_str(root, "DevID");
    if (_strlen(cc->devtoken.get()) < 1 || _strlen(cc->devid.get()) < 1) {
        qzcap_printf("[ERROR] invalid DevToken or DevId\n");
        return 0;
    }
    set_server_info();
    cc->activated = 1;
    cc->status = cc_challenge;
    send_get_challenge();
    return 1;
}

int cc_connect_ack(const cJSON *root) {
    if (failed(root)) {
        if (cc->result == result_unknown_device) {
            cc_clear_identity();
            cc_retry();
        } else {
            cc_wait_long(server_abi);
        }
        return 1;
    }
    text_ptr key = exact_text(root, "SKey", cc_key_size);
    if (!key) {
        qzcap_printf("[ERROR] invalid SKey\n");
        return 0;
    }
    cc->server_key = std::move(key);
    cc->retry_count = 0;
    cc->cycle_count = 0;
    cc->status = cc_connected;
    cc_send_heartbeat();
    return 1;
}

void cc_send_heartbeat() {
    cc_msg_ptr msg = cc_new_msg("Heartbeat");
    msg->root.text("IPAddr", _get_socket_ip(cc->stream.fd));
    cc_post(std::move(msg));
}

int cc_heartbeat_ack(const cJSON *root) {
    if (failed(root))
        cc_reconnect(reconnect_now_ms);
    return 1;
}

// --- the platform sends the device to a bootstrap server, the one that it has or another ---

int cc_request_connect_bss(const cJSON *root) {
    cc->result = -1;
    const char *host = text_or_empty(json_text(root, "Server"));
    const char *port = text_or_empty(json_text(root, "Port"));
    if (*host || *port) {
        server named{};
        _strlcpy(named.host, host, sizeof named.host);
        _strlcpy(named.port, port, sizeof named.port);
        named.state = server_untried;
        if (!is_valid_server(named)) {
            cc_reply(root);
            return 1;
        }
        cc->bss = named;
    }
    cc->result = 0;
    forget_addresses(cc->resolver);
    cc->abi_index = 0;
    cc_clear_identity();
    cc->server_kind = server_bss;
    cc->boot_reason = boot_requested;
    uloop_timeout_set(&cc->change_timer, change_server_ms);
    cc_reply(root);
    return 1;
}

}  // namespace arvok
