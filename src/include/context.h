#pragma once
/// The one record that the modules share. It is cleared by main before anything else runs; who owns a field
/// stands beside it. Fields that main sets before the loop starts are read-only afterwards.

#include <cstdint>
#include <list>

#include "arvok/device_info.h"
#include "arvok_client/arvok_client.h"
#include "cloud_client/cloud_client.h"
#include "extcc/extcc.h"
#include "local_server/local_server.h"

extern "C" {
#include <libubox/blob.h>
#include <libubus.h>
}

namespace arvok {

/// A host that the platform announced as new.
struct new_device {
    char mac[32];
};

/// More than are ever new at a time; a platform that keeps announcing one host must not fill the memory.
constexpr std::size_t new_devices_max = 1024;

constexpr std::size_t event_subscribers = 6;

struct context {
    std::int32_t is_router;         ///< device_info: the device routes
    std::int32_t gw_default_tried;  ///< arvok_client: the next attempt discovers the gateway
    std::int32_t dual_band;         ///< device_info: there is a 5 GHz radio

    char version[32];
    char arch[32];
    char gw_addr[32];    ///< gateway given by the user; empty: found at each connection
    char local_port[8];  ///< port of the local server; empty: the default

    std::int32_t debug;
    std::int32_t gw_addr_set;
    std::int32_t bss_server_set;
    std::int32_t local_port_set;

    // The device information cache; device_info fills it and says when a record is current.
    std::int32_t devinfo_valid;
    std::int32_t waninfo_valid;
    std::int32_t wifiinfo_valid;
    std::int32_t diag_valid;
    std::uint32_t aps_2g_cnt;
    std::uint32_t aps_5g_cnt;
    devinfo_ptr devinfo;
    waninfo_ptr waninfo;
    wifiinfo_ptr wifiinfo_2g;
    wifiinfo_ptr wifiinfo_5g;  ///< only when dual_band
    wifi_aps_ptr aps_2g;
    wifi_aps_ptr aps_5g;  ///< only when dual_band
    diagnostics_ptr diag;

    ubus_subscriber subscribers[event_subscribers];  ///< platform_events
    std::list<new_device> new_devices;               ///< newest first

    struct blob_buf blob_buf;  ///< shared buffer for building bus messages, one at a time
    void *appmgt_handle;       ///< registration with the app manager
    extcc_state extcc;         ///< rules for LAN hosts and the guest network
    std::int32_t wifi_switch_on;

    arvok_client arvok;  ///< the record that `ec` points at
    cloud_client cloud;  ///< the record that `cc` points at
    server bss_server;   ///< bootstrap server given by the user
    local_server local;  ///< the record that `ls` points at
};

extern context g_ctx;

}  // namespace arvok
