#pragma once
/// The handlers of the messages about settings, status and stations, and what they share with others.
///
/// A handler fills `reply` and answers whether it consumed the message; one that did not says why in the log.

#include <optional>
#include <string_view>

#include "gateway/request.h"

namespace arvok::gateway {

/// "cfg": what "set" has.
bool handle_cfg(request &);
/// "get_status": the items that "get" names.
bool handle_get_status(request &);

// Stations: how they are heard, and where they should go.
bool handle_deassociation(request &);
bool handle_getrssiinfo(request &);
bool handle_startaprssiquery(request &);
bool handle_startstabsstransitionrequest(request &);

/// Disconnects the stations of "mac", a text or an array of texts: both a command and a message of its own.
void deassociate(request &, json::view element);

/// Adds this device's part in the mesh, for "mapInfo" and the mesh report: "mapRole", "mapAlmac" and, for a
/// controller, "backhaulBSS". When a platform call fails, nothing is added; the text says which.
std::optional<std::string_view> add_map_info(json::writer &);

}  // namespace arvok::gateway
