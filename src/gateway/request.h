#pragma once
/// One message while it is handled: what it says, who sent it, what went wrong and what is to be done
/// afterwards.

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/json.h"
#include "platform/cache.h"

namespace arvok::gateway {

/// Error codes of the protocol.
enum error_code {
    not_supported = 10001,
    invalid_parameter = 10002,
    sync_off = 10003,
    platform_failed = 10004,
};

/// Bits of link_state::events.
enum event_bit : std::uint32_t { event_online = 1, event_offline = 2, event_vsie = 4, event_rolechange = 16 };

/// Device actions that wait until the reply has been sent.
enum action_bit : std::uint32_t { action_bridge = 1, action_reboot = 2, action_reset = 4 };

/// What requests see and change of the link.
struct link_state {
    bool linked = false;       ///< registered: reports and events may be sent
    bool sync_on = false;      ///< gateway sync is on
    std::uint32_t events = 0;  ///< event_bit of those that the gateway subscribed to
};

class beacons;
class bus_bridge;
class rssi_queries;

/// What requests work on; lives longer than any of them.
struct request_services {
    platform::cache &cache;
    link_state &link;
    gateway::beacons &beacons;
    bus_bridge &bridge;
    rssi_queries &queries;
    /// Installations of the agent's own package that the app manager has under way; those of an earlier link
    /// may end later. Not by make_shared, which brings the exceptions of the C++ library along.
    std::shared_ptr<unsigned> upgrades{new unsigned(0)};
};

class request {
  public:
    request(json::view message, bool through_cloud, const request_services &given)
        : root(message), from_cloud(through_cloud), allow_bridge(!through_cloud), services(given) {}

    const json::view root;
    const bool from_cloud;  ///< no envelope checks, nothing sent on the link
    bool allow_bridge;      ///< a switch to bridge mode may follow
    const request_services &services;
    std::uint32_t actions = 0;  ///< action_bit of what is to be done when the reply has been sent
    json::value reply;          ///< to be sent; none: nothing
    bool is_answered_later = false;

    // --- errors: the last one counts ---

    /// Records and logs an error; its text is cut at error_text_max bytes.
    void fail(error_code code, const char *format, ...) __attribute__((format(printf, 3, 4)));
    /// The same; false, for an item that has none.
    bool fail_item(error_code code, const char *format, ...) __attribute__((format(printf, 3, 4)));

    int errcode() const { return errcode_; }
    const std::string &errmsg() const { return errmsg_; }

    // --- envelope ---

    /// Whether a request from the gateway has a numeric "sequence" and a text "mac"; says in the log what it
    /// lacks. Requests through the cloud have no envelope and always pass.
    bool has_envelope() const;
    /// A reply with its envelope: "type", the request's "sequence" (0 when it is no number) and the device's
    /// "mac".
    json::object reply_of(std::string_view type) const;
    /// {"type":"ack", ..., "errcode", "errmsg"} becomes the reply.
    void acknowledge();

  private:
    void record(error_code code, const char *format, std::va_list args);

    int errcode_ = 0;
    std::string errmsg_;
};

/// The error of an item that would make the reply longer than a message may be; its code is platform_failed.
inline constexpr char too_long[] = "reply too long";

/// Bytes of an error's text.
constexpr std::size_t error_text_max = 255;

}  // namespace arvok::gateway
