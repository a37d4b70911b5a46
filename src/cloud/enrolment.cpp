#include "cloud/enrolment.h"

#include <string>

#include "base/log.h"
#include "base/network.h"
#include "base/product.h"
#include "base/text.h"
#include "cloud/reply.h"

namespace arvok::cloud {
namespace {

constexpr char device_type[] = "Arvok AP";
constexpr char platform_id[] = "SMARTAP";
constexpr char protocol_version[] = "3.0";
constexpr char bus_interface_version[] = "V2019.1.0";

constexpr std::size_t serial_size = 34;
constexpr std::size_t challenge_size = 32;
constexpr int result_unknown_device = -2;

// The serial number, or one made of the MAC where the device has none of the platform's form.
std::string serial_number(const platform::cache &cache) {
    const std::string_view serial = view_of(cache.device().sn);
    if (serial.size() == serial_size)
        return std::string(serial);
    return std::string("FFFFFFFFFFFFFFFFFFFFFF").append(cache.own_mac()).substr(0, serial_size);
}

// The text of a member, empty when it is missing or not of exactly that size.
std::string_view exact_text(json::view member, std::size_t size) {
    const std::string_view text = member.text().value_or("");
    return text.size() == size ? text : std::string_view();
}

// Takes a named business server over into its place; true when that changes something.
bool store_business_server(json::view named, server &place) {
    server found{std::string(named["ServerAddr"].text().value_or("")),
                 std::to_string(named["ServerPort"].integer().value_or(0))};
    if (!is_valid(found) || found == place)
        return false;
    place = std::move(found);
    return true;
}

}  // namespace

enrolment::enrolment(connection &link, connector &connector, settings &settings, platform::cache &cache)
    : link_(link),
      connector_(connector),
      settings_(settings),
      cache_(cache),
      reason_(settings.has_business() ? boot_reason::answered : boot_reason::start) {}

// --- messages ---

void enrolment::begin() {
    if (link_.at() == stage::bootstrap)
        send_boot();
    else if (link_.at() == stage::challenge)
        send_get_challenge();
}

json::writer &enrolment::add_device(json::writer &message) const {
    const qzcap_devinfo &device = cache_.device();
    return message.text("Vendor", device.vendor)
        .text("Model", device.model)
        .text("FirmwareVer", device.swversion)
        .text("HardwareVer", device.hdversion);
}

void enrolment::send_boot() {
    json::object message = link_.message("Boot");
    message.text("CKey", link_.new_client_key());
    add_device(message)
        .text("DevType", device_type)
        .text("bootstrap", std::to_string(static_cast<int>(reason_)))
        .text("QZEI", cache_.device().QZEI);
    link_.ask(message.take());
}

void enrolment::send_get_challenge() {
    link_.ask(link_.message("GetChallengeCode").take());
}

void enrolment::send_activate(std::string_view challenge) {
    const qzcap_devinfo &device = cache_.device();
    json::object message = link_.message("Activate");
    add_device(message)
        .text("SN", serial_number(cache_))
        .text("CKey", link_.new_client_key())
        .text("ChallengeCode", challenge)
        .text("IPAddr", link_.local_address())
        .text("CloudClientVer", product_version)
        .text("MiddleWareVer", cache_.middleware_version())
        .text("MiddleWareBakVer", "")
        .text("LOID", "")
        .text("PlatformID", platform_id)
        .text("QZEI", device.QZEI);
    link_.ask(message.take());
}

void enrolment::send_connect(std::string_view challenge) {
    cache_.expire_device();
    cache_.refresh_device();
    cache_.expire_wan();
    cache_.refresh_wan();
    const qzcap_devinfo &device = cache_.device();
    json::object message = link_.message("Connect");
    add_device(message)
        .text("DevID", settings_.device_id)
        .text("DevToken", settings_.device_token.text())
        .text("CKey", link_.new_client_key())
        .text("ChallengeCode", challenge)
        .text("IPAddr", link_.local_address())
        .text("UPPER_MAC", gateway_mac(cache_.is_router(), view_of(device.lan_source)))
        .text("CloudClientVer", product_version)
        .text("MiddleWareVer", cache_.middleware_version())
        .text("MiddleWareBakVer", "")
        .text("LOID", "")
        .text("PlatformID", platform_id)
        .text("upgrade_ID", "")
        .number("Flag", 0)
        .text("Version", protocol_version)
        .text("DBusInterfaceVersion", bus_interface_version);
    if (const qzcap_waninfo *wan = cache_.wan())
        message.text("PPPoEName", wan->pppoe_user);
    message.text("QZEI", device.QZEI);
    link_.ask(message.take());
}

void enrolment::send_heartbeat() {
    link_.ask(link_.message("Heartbeat").text("IPAddr", link_.local_address()).take());
}

// --- acknowledgements ---

// The "Result"; people are told about one that is not 0.
int enrolment::result_of(json::view message) {
    const int result = message["Result"].integer().value_or(-1);
    if (result != 0)
        connector_.note("平台返回" + std::to_string(result));
    return result;
}

bool enrolment::boot_acknowledged(json::view message) {
    if (result_of(message) != 0) {
        connector_.wait_long(target::bootstrap);
        return true;
    }
    const json::view named = message["BizPlat"];
    if (!named.is_array()) {
        log_printf("[ERROR] invalid BizPlat\n");
        return false;
    }
    if (!named.first()) {
        log_printf("[ERROR] BizPlat is null\n");
        return false;
    }
    bool changed = false;
    std::size_t count = 0;
    for (const json::view one : named) {
        if (count == business_max)
            break;
        server &place = settings_.business[count];
        changed |= store_business_server(one, place);
        log_printf("[INFO] abi[%d]:    %s:%s\n", static_cast<int>(count), place.host.c_str(),
                   place.port.c_str());
        count++;
    }
    for (; count < business_max; count++)
        settings_.business[count] = {};
    settings_.store();
    connector_.choose(target::business);
    leave_bootstrap(changed);
    reason_ = boot_reason::answered;
    return true;
}

// Where the bootstrap server's answer leads. A list that was asked for is taken even when it is the old one.
void enrolment::leave_bootstrap(bool changed) {
    if (!changed && reason_ != boot_reason::requested) {
        log_printf("[INFO] abi server is not updated\n");
        connector_.note("TCP连接断开");
        connector_.wait_long(target::business);
    } else if (settings_.business[0] != settings_.bootstrap) {
        log_printf("[INFO] reconnect abi server\n");
        connector_.reconnect(reconnect_now_ms);
    } else {
        log_printf("[INFO] curr and bss are the same\n");
        link_.enter(stage::challenge);
        send_get_challenge();
    }
}

bool enrolment::challenge_acknowledged(json::view message) {
    if (result_of(message) != 0) {
        connector_.wait_long(target::business);
        return true;
    }
    const std::string_view challenge = exact_text(message["ChallengeCode"], challenge_size);
    if (challenge.empty()) {
        log_printf("[ERROR] invalid ChallengeCode\n");
        return false;
    }
    if (settings_.is_activated()) {
        link_.enter(stage::connecting);
        send_connect(challenge);
    } else {
        link_.enter(stage::activating);
        send_activate(challenge);
    }
    return true;
}

bool enrolment::activate_acknowledged(json::view message) {
    if (result_of(message) != 0) {
        connector_.wait_long(target::business);
        return true;
    }
    const std::string_view token = message["DevToken"].text().value_or("");
    const std::string_view id = message["DevID"].text().value_or("");
    if (token.empty() || id.empty()) {
        log_printf("[ERROR] invalid DevToken or DevId\n");
        return false;
    }
    settings_.device_token = token;
    settings_.device_id = id;
    settings_.store();
    link_.enter(stage::challenge);
    send_get_challenge();
    return true;
}

bool enrolment::connect_acknowledged(json::view message) {
    if (const int result = result_of(message); result == result_unknown_device) {
        settings_.clear_identity();
        connector_.retry();
        return true;
    } else if (result != 0) {
        connector_.wait_long(target::business);
        return true;
    }
    const std::string_view key = exact_text(message["SKey"], aes_key_size);
    if (key.empty()) {
        log_printf("[ERROR] invalid SKey\n");
        return false;
    }
    connector_.succeeded();
    link_.enter_connected(key);
    send_heartbeat();
    return true;
}

bool enrolment::heartbeat_acknowledged(json::view message) {
    if (result_of(message) != 0)
        connector_.reconnect(reconnect_now_ms);
    return true;
}

// --- back to a bootstrap server ---

void enrolment::request_connect_bootstrap(json::view request) {
    outcome result;
    const server named{std::string(request["Server"].text().value_or("")),
                       std::string(request["Port"].text().value_or(""))};
    const bool given = !named.host.empty() || !named.port.empty();
    if (!given || is_valid(named)) {
        if (given)
            settings_.bootstrap = named;
        connector_.change_bootstrap();
        reason_ = boot_reason::requested;
        result.code = 0;
    }
    link_.write(reply_to(request, result));
}

}  // namespace arvok::cloud
