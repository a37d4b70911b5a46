#pragma once
/// The platform's notifications: hosts that come and go, WAN, gateway sync, roaming, mesh, received elements.
///
/// Each is logged and turned into a report or event for the gateway or a change of state. The callbacks run
/// on the loop thread, which serves the bus.

namespace arvok {

/// Installs the six callbacks and subscribes them to their platform objects.
void subscribe_platform_events();

/// Ends the six subscriptions.
void unsubscribe_platform_events();

}  // namespace arvok
