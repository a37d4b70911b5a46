#pragma once
/// Enrolment, one message at a time:
///
///   bootstrap server   Boot -> the business servers' addresses
///   business server    GetChallengeCode -> (no identity yet: Activate -> identity, GetChallengeCode ->)
///                      Connect -> server key, Heartbeat -> ...
///
/// What a handler sends goes out on the loop's next turn, when the acknowledgement at hand is done with.

#include <string_view>

#include "base/json.h"
#include "cloud/connection.h"
#include "cloud/connector.h"
#include "cloud/settings.h"
#include "platform/cache.h"

namespace arvok::cloud {

/// Why the device asks the bootstrap server: the digit goes into the Boot message.
enum class boot_reason { answered = 0, start = 1, requested = 2 };

class enrolment {
  public:
    /// All are borrowed. Whether business servers are known already is the reason of the first Boot.
    enrolment(connection &link, connector &connector, settings &settings, platform::cache &cache);

    /// Opens the exchange that the stage asks for, on a new connection.
    void begin();
    /// Its acknowledgement must come.
    void send_heartbeat();

    /// Handlers of the acknowledgements; false: what came is not valid.
    bool boot_acknowledged(json::view message);
    bool challenge_acknowledged(json::view message);
    bool activate_acknowledged(json::view message);
    bool connect_acknowledged(json::view message);
    bool heartbeat_acknowledged(json::view message);

    /// The request "RequestConnectBSS": the platform sends the device to a bootstrap server, the one that it
    /// has or another.
    void request_connect_bootstrap(json::view request);

  private:
    json::writer &add_device(json::writer &message) const;
    void send_boot();
    void send_get_challenge();
    void send_activate(std::string_view challenge);
    void send_connect(std::string_view challenge);
    int result_of(json::view message);
    void leave_bootstrap(bool changed);

    connection &link_;
    connector &connector_;
    settings &settings_;
    platform::cache &cache_;
    boot_reason reason_;
};

}  // namespace arvok::cloud
