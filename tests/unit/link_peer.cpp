// What stands in for the loop's timers, the machine and the platform.

#include "link_peer.h"

#include <dlfcn.h>
#include <sys/sysinfo.h>

namespace arvok::gateway {

extern "C" {

int uloop_timeout_set(uloop_timeout *timer, int ms) {
    static const auto next = reinterpret_cast<int (*)(uloop_timeout *, int)>(dlsym(RTLD_NEXT, __func__));
    const int result = next(timer, ms);  // which may cancel it first
    if (ms >= 1000) {
        around.armed[timer] = ms;
        around.ever_armed.push_back(ms);
    }
    return result;
}

int uloop_timeout_cancel(uloop_timeout *timer) {
    static const auto next = reinterpret_cast<int (*)(uloop_timeout *)>(dlsym(RTLD_NEXT, __func__));
    around.armed.erase(timer);
    return next(timer);
}

int sysinfo(struct sysinfo *info) noexcept {
    info->uptime = around.uptime;
    return 0;
}

qzcap_devinfo *qzcap_get_devinfo() {
    if (!around.device_known)
        return nullptr;
    auto *device = static_cast<qzcap_devinfo *>(qzcap_calloc(1, sizeof(qzcap_devinfo)));
    device->mac = qzcap_strdup("02:11:22:33:44:55");
    return device;
}

std::int32_t qzcap_add_vsie_beacontx(const qzcap_vsie_beacontx *, char **) {
    return around.next_element++;
}

int qzcap_vsie_beacontx_action(std::int32_t index, const char *action, char **) {
    around.elements += std::string(action) + " " + std::to_string(index) + " ";
    return 0;
}

int qzcap_install_app(ubus_context *, const char *url, qzcap_install_handler_t done, void *priv) {
    if (url[0] == '\0')
        return -1;
    around.installations.push_back(priv);
    around.installed = done;
    return 0;
}

// On the bus are "a" and "b".
std::uint32_t qzcap_get_objid_by_name(const char *name) {
    around.looked_up += std::string(name) + " ";
    if (around.ends_at_lookup)
        uloop_end();
    return name[1] == '\0' || name[0] == 's' ? 1 : 0;  // what can be subscribed to
}

int ubus_register_event_handler(ubus_context *, ubus_event_handler *, const char *) {
    return UBUS_STATUS_OK;
}

int ubus_remove_object(ubus_context *, ubus_object *) {
    return UBUS_STATUS_OK;
}

int qzcap_ubus_subscribe(ubus_subscriber *, std::uint32_t) {
    return 0;
}

// A last notification comes while the subscription ends.
int qzcap_ubus_unsubscribe(ubus_subscriber *subscriber, std::uint32_t) {
    blob_buf message{};
    blob_buf_init(&message, 0);
    subscriber->cb(nullptr, &subscriber->obj, nullptr, "last", message.head);
    blob_buf_free(&message);
    return 0;
}

}  // extern "C"

}  // namespace arvok::gateway
