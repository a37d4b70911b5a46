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

int ubus_remove_object(ubus_context *, ubus_object *object) {
    std::erase_if(around.subscribers, [&](const ubus_subscriber *each) { return &each->obj == object; });
    return UBUS_STATUS_OK;
}

// There is no daemon behind it.
ubus_context *qzcap_get_ubus_context() {
    static ubus_context platform;
    static const int status = ubus_connect_ctx(&platform, "/none");
    static_cast<void>(status);
    return &platform;
}

// A last notification for each subscriber comes while the connection ends.
ubus_context *ubus_connect(const char *) {
    static ubus_context bus{};
    around.bus += "opened ";
    bus.sock.fd = -1;
    bus.sock.cb = [](uloop_fd *, unsigned int) {
        blob_buf message{};
        blob_buf_init(&message, 0);
        for (ubus_subscriber *subscriber : around.subscribers)
            subscriber->cb(&bus, &subscriber->obj, nullptr, "last", message.head);
        blob_buf_free(&message);
    };
    return &bus;
}

int ubus_register_subscriber(ubus_context *, ubus_subscriber *subscriber) {
    around.subscribers.push_back(subscriber);
    return UBUS_STATUS_OK;
}

int ubus_subscribe(ubus_context *, ubus_subscriber *, std::uint32_t) {
    return UBUS_STATUS_OK;
}

void ubus_free(ubus_context *) {
    around.bus += "closed ";
    around.subscribers.clear();
}

}  // extern "C"

}  // namespace arvok::gateway
