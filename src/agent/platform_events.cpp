#include "agent/platform_events.h"

#include <utility>

#include "base/bus_message.h"
#include "base/log.h"
#include "base/text.h"
#include "gateway/reports.h"

namespace arvok {
namespace {

// What the log calls them.
constexpr char dev_event[] = "dev_event_cb", wan_event[] = "wan_event_cb", wifi_event[] = "wifi_event_cb",
               roaming_event[] = "roaming_event_cb", map_event[] = "map_event_cb",
               vsie_event[] = "vsie_event_cb";

}  // namespace

platform_events::platform_events(modules &running, platform::object_watch &objects)
    : modules_(running),
      turn_(bind<&platform_events::serve_next>(*this)),
      host_(objects, QZCAP_OBJ_LANINFO,
            bind<&platform_events::take<&platform_events::host, dev_event>>(*this),
            bind<&platform_events::catch_up_hosts>(*this)),
      wan_(objects, QZCAP_OBJ_WAN, bind<&platform_events::take<&platform_events::wan, wan_event>>(*this),
           bind<&platform_events::catch_up_wan>(*this)),
      wifi_(objects, QZCAP_OBJ_WIFI, bind<&platform_events::take<&platform_events::wifi, wifi_event>>(*this),
            bind<&platform_events::catch_up_sync>(*this)),
      roaming_(objects, QZCAP_OBJ_ROAMING,
               bind<&platform_events::take<&platform_events::roaming, roaming_event>>(*this)),
      mesh_(objects, QZCAP_OBJ_MESH, bind<&platform_events::take<&platform_events::mesh, map_event>>(*this)),
      element_(objects, QZCAP_OBJ_VSIE,
               bind<&platform_events::take<&platform_events::element, vsie_event>>(*this)) {
    for (platform::subscription *each : {&host_, &wan_, &wifi_, &roaming_, &mesh_, &element_})
        each->start();
}

platform_events::~platform_events() {
    host_.stop(platform::object_id(QZCAP_OBJ_LANINFO));
    wan_.stop(platform::object_id(QZCAP_OBJ_WAN));
    wifi_.stop(platform::object_id(QZCAP_OBJ_WIFI));
    roaming_.stop(platform::object_id(QZCAP_OBJ_ROAMING));
    mesh_.stop(platform::object_id(QZCAP_OBJ_ROAMING));  // the platform wants it back under this number
    element_.stop(platform::object_id(QZCAP_OBJ_VSIE));
}

template <void (platform_events::*Act)(const platform_events::notification &), const char *Name>
int platform_events::take(std::string_view method, blob_attr *message) {
    if (!message)
        return -1;
    const std::string text = json_of(message).value_or("");
    log_printf("[DEBUG] %s: method %s, json: %s\n", Name, method.data(), text.c_str());
    const json::document event = json::parse(text);
    if (modules_)
        (this->*Act)({method, text, event.root()});
    return 0;
}

// --- what is reported after asking the platform ---

template <void (platform_events::*Report)(const platform_events::notification &)>
void platform_events::wait(const notification &heard) {
    if (waiting_.empty())
        turn_.arm();
    waiting_.add({[](platform_events &events, const waiting_notification &next) {
                      const json::document event = json::parse(next.text);
                      (events.*Report)({next.method, next.text, event.root()});
                  },
                  std::string(heard.method), heard.text,
                  std::string(heard.event["mac"].text().value_or(""))});
}

void platform_events::serve_next() {
    const std::optional<waiting_notification> next = waiting_.take();
    if (!next || !modules_)
        return;
    if (next->number > batch_end_) {
        batch_end_ = waiting_.newest();
        hosts_.forget();
        appeared_ = false;
    }
    next->serve(*this, *next);
    if (waiting_.empty())
        hosts_.forget();
    else
        turn_.arm();
}

void platform_events::report_host(const notification &heard) {
    if (heard.method == "devicestatus") {
        modules_.gateway->reporting().lan_event(heard.event, hosts_);
        modules_.gateway->reporting().lan_report(hosts_);
        if (heard.event["active"].number().value_or(0) == 1)
            host_appeared();
    } else if (heard.method == "newdevice") {
        host_appeared();
    }
}

// The rules look at all hosts, after those that have been heard of.
void platform_events::host_appeared() {
    if (!std::exchange(appeared_, true))
        modules_.access->host_appeared();
}

void platform_events::report_wan(const notification &heard) {
    modules_.gateway->reporting().wan_report(heard.event);
}

void platform_events::report_mesh(const notification &heard) {
    modules_.gateway->reporting().map_report();
    if (const auto mode = heard.event["mode"].text())
        modules_.gateway->reporting().map_event(*mode);
}

// --- what follows at once ---

void platform_events::host(const notification &heard) {
    wait<&platform_events::report_host>(heard);
}

// The cloud is behind the WAN. The states are looked for in the text, wherever in the notification they
// stand.
void platform_events::wan(const notification &heard) {
    if (!contains(heard.text, R"("status":"down")") || !modules_.cloud->wan_down())
        if (contains(heard.text, R"("status":"up")"))
            modules_.cloud->wan_up();
    if (heard.event)
        wait<&platform_events::report_wan>(heard);
}

void platform_events::wifi(const notification &heard) {
    const std::string_view sync = heard.event["arvoksync"].text().value_or("");
    if (sync == "on")
        modules_.gateway->sync_turned_on();
    else if (sync == "off")
        modules_.gateway->set_sync(false);
}

void platform_events::mesh(const notification &heard) {
    wait<&platform_events::report_mesh>(heard);
}

void platform_events::roaming(const notification &heard) {
    if (heard.event && heard.method == "aprssi")
        modules_.gateway->reporting().rssi_report(heard.event);
    else if (heard.event)
        modules_.gateway->reporting().roaming_report(heard.event);
}

void platform_events::element(const notification &heard) {
    if (heard.event)
        modules_.gateway->reporting().vsie_event(heard.event);
}

// --- what an object that was away did not tell ---

bool platform_events::catch_up_hosts() {
    if (modules_)
        modules_.access->host_appeared();
    return true;
}

bool platform_events::catch_up_wan() {
    if (!modules_)
        return true;
    const platform::wan_record now(platform::call(qzcap_get_waninfo));
    if (!now)
        return false;
    const std::string_view status = view_of(now->status);
    if (status == "down")
        modules_.cloud->wan_down();
    else if (status == "up")
        modules_.cloud->wan_up();
    return true;
}

bool platform_events::catch_up_sync() {
    if (!modules_)
        return true;
    const platform::switches_record now(platform::call(qzcap_get_wifi_switch));
    if (!now)
        return false;
    const std::string_view sync = view_of(now->arvoksync);
    if (sync == "on" && !modules_.gateway->sync_is_on())
        modules_.gateway->sync_turned_on();
    else if (sync == "off")
        modules_.gateway->set_sync(false);
    return true;
}

}  // namespace arvok
