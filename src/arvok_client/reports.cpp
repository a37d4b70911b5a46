// What the device tells the gateway on its own. Reports are built at once and sent on the loop's next turn.

#include "arvok_client/arvok_client.h"
#include "common/clock.h"
#include "common/text.h"
#include "context.h"

namespace arvok {

int send_arvok_wan_report(const cJSON *event) {
    if (!ec->linked)
        return 0;
    arvok_msg_ptr msg = arvok_msg_new("wan_report", 0);
    update_wan_info();
    json_object status(json_ptr(cJSON_Duplicate(event, true)));
    if (!json_member(status.get(), "status"))
        status.text("status", "ip_changed");
    const qzcap_waninfo *wan = g_ctx.waninfo.get();
    status.add("dns", json_texts({wan ? wan->dns1 : nullptr, wan ? wan->dns2 : nullptr}));
    msg->root.add("status", status.take());
    return arvok_post(std::move(msg));
}

void send_arvok_lan_report() {
    if (!ec->linked)
        return;
    arvok_msg_ptr msg = arvok_msg_new("dev_report", 0);
    unsigned int count = 0;
    qzcap_laninfo **list = nullptr;
    if (qzcap_list_laninfo(&count, &list) < 0) {
        qzcap_printf("[ERROR] qzcap_list_laninfo failed");
        return;
    }
    const laninfos_ptr hosts(list, {count});
    json_ptr dev(cJSON_CreateArray());
    for (unsigned int i = 0; i < count; i++) {
        const qzcap_laninfo &host = *list[i];
        if (!host.active)
            continue;
        json_object item;
        item.text("mac", host.mac)
            .text("vmac", host.vmac)
            .number("connecttype", host.connecttype)
            .number("firstOnline", static_cast<double>(arvok_first_online(host.mac)));
        json_append(dev.get(), item.take());
    }
    msg->root.add("dev", std::move(dev));
    arvok_post(std::move(msg));
}

std::int64_t arvok_first_online(const char *mac) {
    mac = text_or_empty(mac);
    for (const first_online &seen : ec->first_online_list)
        if (_strcasecmp(seen.mac, mac) == 0)
            return seen.time;
    if (ec->first_online_list.size() >= first_online_max)
        ec->first_online_list.pop_back();
    first_online &now = ec->first_online_list.emplace_front();
    _strlcpy(now.mac, mac, sizeof now.mac);
    now.time = wall_clock();
    return now.time;
}

}  // namespace arvok
