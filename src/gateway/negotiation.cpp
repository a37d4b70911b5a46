#include "gateway/negotiation.h"

#include "base/clock.h"
#include "base/log.h"
#include "base/network.h"

namespace arvok::gateway {
namespace {

constexpr char protocol_version[] = "V2019.1.0";
constexpr int keyngreq_ack_ms = 5000;
constexpr int dh_ack_ms = 10000;
constexpr int dev_reg_ack_ms = 20000;

// A fresh prime is work for a small device, and no gateway needs another one on a connection that has its
// key.
constexpr std::size_t negotiations_max = 4;
constexpr long negotiations_s = 10;

// Whether a text that the gateway may echo is either absent or what was sent.
bool echoes(json::view echo, const std::string &sent) {
    const std::optional<std::string_view> text = echo.text();
    return !text || (!sent.empty() && *text == sent);
}

}  // namespace

void negotiation::request_key() {
    message request = link_.new_message("keyngreq", keyngreq_ack_ms);
    request.body.text("version", protocol_version)
        .add("keymodelist", json::array().add(json::object().text("keymode", "dh").take()).take());
    link_.send(std::move(request));
}

bool negotiation::is_too_often() {
    const long now = uptime();
    while (!begun_.empty() && now - begun_.front() >= negotiations_s)
        begun_.pop_front();
    begun_.push_back(now);
    return begun_.size() > negotiations_max;
}

void negotiation::forget() {
    exchange_.clear();
    begun_.clear();
}

bool negotiation::handle_keyngack(json::view answer) {
    const std::optional<std::string_view> mode = answer["keymode"].text();
    if (!mode) {
        log_printf("[ERROR] invalid keymode\n");
        return false;
    }
    if (*mode != "dh") {
        log_printf("[ERROR] unsupported keymode\n");
        return false;
    }
    if (is_too_often()) {
        log_printf("[ERROR] (arvok) too many key negotiations\n");
        link_.fail();
        return false;
    }
    message offer = link_.new_message("dh", dh_ack_ms);
    link_.forget_key();
    exchange_.begin();
    json::object data;
    data.text("dh_key", exchange_.public_value())
        .text("dh_p", exchange_.prime())
        .text("dh_g", exchange_.generator());
    offer.body.add("data", data.take());
    link_.send(std::move(offer));
    link_.negotiation_began();
    return true;
}

json::value negotiation::registration_data() const {
    const qzcap_devinfo &device = cache_.device();
    json::object data;
    data.text("vendor", device.vendor)
        .text("model", device.model)
        .text("swversion", device.swversion)
        .text("hdversion", device.hdversion)
        .text("sn", device.sn)
        .text("ipaddr", link_.local_address())
        .text("url", device.url)
        .text("wireless", device.wireless)
        .text("QZEI", device.QZEI)
        .text("devtype", device.devtype)
        .number("supportMesh", device.supportMesh);
    if (device.supportMesh != 0)
        if (const platform::mesh_record mesh{platform::call(qzcap_get_mesh)})
            data.text("mapAlmac", mesh->almac);
    data.text("description", device.description);
    return data.take();
}

bool negotiation::handle_dh(json::view answer) {
    const json::view data = answer["data"];
    const std::optional<std::string_view> peer_public = data["dh_key"].text();
    if (!peer_public) {
        log_printf("[ERROR] invalid dh_key\n");
        return false;
    }
    if (!echoes(data["dh_p"], exchange_.prime())) {
        log_printf("[ERROR] invalid dh_p\n");
        return false;
    }
    if (!echoes(data["dh_g"], exchange_.generator())) {
        log_printf("[ERROR] invalid dh_g\n");
        return false;
    }
    const key_exchange::agreement reached = exchange_.agree(*peer_public);
    if (reached.refused) {
        link_.fail();
        return false;
    }
    if (reached.key)
        link_.use_key(*reached.key);
    cache_.refresh_device();  // the gateway is told what the device is now, not what it was at the start
    message registration = link_.new_message("dev_reg", dev_reg_ack_ms);
    const std::string_view lan_source = view_of(cache_.device().lan_source);
    registration.body.text("link_mac", gateway_mac(cache_.is_router(), lan_source))
        .add("data", registration_data());
    link_.send(std::move(registration));
    state_.linked = true;
    link_.keep_alive();
    return true;
}

}  // namespace arvok::gateway
