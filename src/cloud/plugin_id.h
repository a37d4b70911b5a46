#pragma once
/// What the platform calls an app, and which installed app it means. An identifier is
/// "com.marobelvinta.all.smartap.", the app's name, "_" and the architecture, for some apps also "_" and the
/// device's vendor. An app is found by either form.

#include <optional>
#include <string>
#include <string_view>

#include "cloud/reply.h"

namespace arvok::cloud {

/// The plugin and the app that are the agent itself.
constexpr char self_plugin_name[] = "ArvokAP";
constexpr char self_app_name[] = "arvokclt";

/// The app's name of an identifier of this device: 1 to 31 characters without a '/', the first no dot, so
/// that it may stand in a path. Nothing after the log line that says why not.
std::optional<std::string> app_of_plugin(std::string_view id, std::string_view vendor);

/// The installed app that a request names, in the version that it names. The agent itself is there in every
/// version. Nothing when it is not there: the outcome then says why.
std::optional<std::string> find_plugin(std::string_view id, std::string_view version, std::string_view vendor,
                                       outcome &result);

/// The identifier of an installed app.
std::string plugin_of_app(std::string_view app_name, std::string_view vendor);

}  // namespace arvok::cloud
