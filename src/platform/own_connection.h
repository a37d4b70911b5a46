#pragma once
/// A connection to the bus beside the platform library's: for the notifications of objects that others chose.

extern "C" {
#include <libubus.h>
}

#include <chrono>
#include <cstdint>
#include <vector>

namespace arvok::platform {

/// Open while it has a subscriber. Its objects may notify anything at any rate. While the process waits for
/// the platform nobody reads it: the bus's daemon drops what it does not keep, and neither memory nor an
/// answer of the platform's suffers. When the daemon ends it, the loop ends.
class own_connection {
  public:
    own_connection() = default;
    ~own_connection() { close(); }
    own_connection(const own_connection &) = delete;
    own_connection &operator=(const own_connection &) = delete;

    /// The subscriber, whose callbacks are set, outlives its subscription. False when there is no such
    /// object, no bus, or more coming in than can be read, behind which the daemon's answer might be dropped.
    bool subscribe(ubus_subscriber &to, std::uint32_t object);
    /// Returns whether it was subscribed to this object; it hears nothing more in any case. When more comes
    /// in than can be read, the connection is opened anew: the other subscribers are told that their objects
    /// have gone.
    bool unsubscribe(ubus_subscriber &to, std::uint32_t object);
    /// Ends all subscriptions at once, and waits for nobody.
    void close();

  private:
    struct member {
        ubus_subscriber *subscriber;
        std::uint32_t object;
    };

    bool open();
    bool read_up();
    void start_over();

    ubus_context *bus_ = nullptr;
    std::chrono::steady_clock::time_point reading_since_;  ///< what lay before an answer
    std::vector<member> members_;                          ///< those the bus library has, too
};

}  // namespace arvok::platform
