// Key agreement and registration, on every new connection:
//
//   -> keyngreq            <- keyngack   plain
//   -> dh (p, g, public)   <- dh         plain
//   -> dev_reg             <- ack        encrypted, as is everything from here on
//
// The deadlines of "dh" and "dev_reg" are armed by sending them from inside a handler, and the dispatcher
// cancels them as soon as that handler returns; a gateway that falls silent there is found out by the
// keepalives.

#include "arvok_client/arvok_client.h"
#include "common/clock.h"
#include "common/network.h"
#include "common/text.h"
#include "context.h"

namespace arvok {
namespace {

constexpr char protocol_version[] = "V2019.1.0";
constexpr int keyngreq_ack_ms = 5000;
constexpr int dh_ack_ms = 10000;
constexpr int dev_reg_ack_ms = 20000;
constexpr int first_keepalive_ms = 1000;

json_ptr registration_data() {
    const qzcap_devinfo &device = *g_ctx.devinfo;
    json_object data;
    data.text("vendor", device.vendor)
        .text("model", device.model)
        .text("swversion", device.swversion)
        .text("hdversion", device.hdversion)
        .text("sn", device.sn)
        .text("ipaddr", _get_socket_ip(ec->stream.fd))
        .text("url", device.url)
        .text("wireless", device.wireless)
        .text("QZEI", device.QZEI)
        .text("devtype", device.devtype)
        .number("supportMesh", device.supportMesh);
    if (device.supportMesh != 0)
        if (const mesh_ptr mesh{qzcap_get_mesh()})
            data.text("mapAlmac", mesh->almac);
    data.text("description", device.description);
    return data.take();
}

void send_registration() {
    arvok_msg_ptr msg = arvok_msg_new("dev_reg", dev_reg_ack_ms);
    msg->root.text("link_mac", _get_gateway_mac(g_ctx.is_router, g_ctx.devinfo->lan_source))
        .add("data", registration_data());
    arvok_send(msg.release());
}

// Whether a text that the gateway may echo is either absent or what was sent.
bool echoes(const cJSON *data, const char *key, const text_ptr &sent) {
    const char *echo = json_text(data, key);
    return !echo || _strcmp(echo, sent.get()) == 0;
}

}  // namespace

void send_arvok_keyngreq() {
    arvok_msg_ptr msg = arvok_msg_new("keyngreq", keyngreq_ack_ms);
    json_ptr modes(cJSON_CreateArray());
    json_append(modes.get(), json_object().text("keymode", "dh").take());
    msg->root.text("version", protocol_version).add("keymodelist", std::move(modes));
    arvok_send(msg.release());
}

int arvok_keyngack(const cJSON *root, reply_context &context) {
    if (context.from_cloud)
        return 0;
    const char *keymode = json_text(root, "keymode");
    if (!keymode) {
        qzcap_printf("[ERROR] invalid keymode\n");
        return 0;
    }
    if (_strcmp(keymode, "dh") != 0) {
        qzcap_printf("[ERROR] unsupported keymode\n");
        return 0;
    }
    arvok_msg_ptr msg = arvok_msg_new("dh", dh_ack_ms);
    gen_client_dh_key(ec->dh);
    json_object data;
    data.text("dh_key", ec->dh.client_pub.get()).text("dh_p", ec->dh.p.get()).text("dh_g", ec->dh.g.get());
    msg->root.add("data", data.take());
    arvok_send(msg.release());
    ec->connect_time = static_cast<std::int32_t>(_get_uptime());
    return 1;
}

int arvok_dh(const cJSON *root, reply_context &context) {
    if (context.from_cloud)
        return 0;
    const cJSON *data = json_member(root, "data");
    text_ptr peer_pub = _get_json_str(data, "dh_key");
    if (!peer_pub) {
        qzcap_printf("[ERROR] invalid dh_key\n");
        return 0;
    }
    if (!echoes(data, "dh_p", ec->dh.p)) {
        qzcap_printf("[ERROR] invalid dh_p\n");
        return 0;
    }
    if (!echoes(data, "dh_g", ec->dh.g)) {
        qzcap_printf("[ERROR] invalid dh_g\n");
        return 0;
    }
    ec->dh.server_pub = std::move(peer_pub);
    gen_client_dh_aes_key(ec->dh);
    update_dev_info();  // the gateway is told what the device is now, not what it was at the start
    send_registration();
    ec->reports_pending = 1;
    ec->linked = 1;
    uloop_timeout_set(&ec->keepalive_timer, first_keepalive_ms);
    return 1;
}

}  // namespace arvok
