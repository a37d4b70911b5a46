#pragma once
/// What the device tells the gateway on its own: reports, which are built at once and sent on the loop's next
/// turn, and events, which are sent at once.
///
/// Nothing is sent while the link is not registered, and no event that the gateway did not subscribe to.

#include "gateway/connection.h"
#include "gateway/first_seen.h"
#include "gateway/request.h"
#include "platform/host_snapshot.h"

namespace arvok::gateway {

class reports {
  public:
    /// `notify_cloud` is handed what the cloud asked for.
    reports(connection &link, platform::cache &cache, const link_state &state, rssi_queries &queries,
            wall_clock now, callback<void(std::string notification)> notify_cloud)
        : link_(link),
          cache_(cache),
          state_(state),
          queries_(queries),
          notify_cloud_(notify_cloud),
          first_seen_(now) {}

    /// The WAN is up: the first report of every connection.
    void wan_up(const qzcap_waninfo &wan);
    /// The WAN has changed as the platform's notification says; the DNS servers are added.
    void wan_report(json::view event);
    /// The active LAN hosts.
    void lan_report(platform::host_snapshot &hosts);
    /// The stations that roamed, from the platform's notification.
    void roaming_report(json::view event);
    /// How a station is heard, from the platform's notification: to who asked, gateway or cloud. Without one
    /// it is dropped.
    void rssi_report(json::view event);
    /// The device's part in the mesh.
    void map_report();

    /// A host came ("active" 1) or went ("active" 0).
    void lan_event(json::view event, platform::host_snapshot &hosts);
    /// The mesh role is now `mode`.
    void map_event(std::string_view mode);
    /// A vendor-specific element was received.
    void vsie_event(json::view event);

  private:
    void send_wan_report(json::object status);
    void send_online_event(std::string_view mac, platform::host_snapshot &hosts);
    void send_event(const json::value &item);
    bool is_wanted(event_bit event) const { return state_.linked && (state_.events & event); }

    connection &link_;
    platform::cache &cache_;
    const link_state &state_;
    rssi_queries &queries_;
    const callback<void(std::string notification)> notify_cloud_;
    first_seen first_seen_;
};

}  // namespace arvok::gateway
