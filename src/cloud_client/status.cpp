// The cloud connection's state in words, for the device's management.

#include <cstdio>

#include "cloud_client/cloud_client.h"

namespace arvok {

void get_cloud_status(char *server_text, std::size_t server_size, char *status, std::size_t status_size) {
    const server &used = cc->status == cc_bootstrap ? cc->bss : cc->abi[cc->abi_index];
    std::snprintf(server_text, server_size, "%s:%s", used.host, used.port);

    const bool waiting = cc->reconnect_timer.pending;
    const int seconds = waiting ? uloop_timeout_remaining(&cc->reconnect_timer) / 1000 : 0;
    const char *words = nullptr;
    switch (cc->status) {
        case 0:
            words = "未连接";
            break;
        case cc_bootstrap:
            if (waiting)
                std::snprintf(status, status_size, "未获取到能力平台地址，%s，等待%d秒后连接",
                              cc->status_text, seconds);
            else
                words = cc->resolving ? "平台域名解析中" : "获取能力平台地址中";
            break;
        case cc_challenge:
            if (waiting)
                std::snprintf(status, status_size, "%s，%s，等待%d秒后连接",
                              cc->activated ? "已激活" : "未激活", cc->status_text, seconds);
            else
                words = cc->resolving ? "平台域名解析中" : "获取挑战码中";
            break;
        case cc_activating:
            words = "激活中";
            break;
        case cc_connecting:
            words = "连接中";
            break;
        case cc_connected:
            words = "心跳保活中";
            break;
        default:
            break;
    }
    if (words)
        std::snprintf(status, status_size, "%s", words);
}

}  // namespace arvok
