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

    /// The subscriber, whose callbacks are set, outlives its subscription. False when there is no such object
    /// or no bus.
    bool subscribe(ubus_subscriber &to, std::uint32_t object);
    /// Returns whether it was subscribed to this object; it hears nothing more in any case.
    bool unsubscribe(ubus_subscriber &to, std::uint32_t object);
    /// Ends all subscriptions at once, and waits for nobody.
    void close();

  private:
    struct member {
        ubus_subscriber *subscriber;
        std::uint32_t object;
    };

    bool open();
    bool add(const member &added);
    bool read_up();
    void start_over();

    ubus_context *bus_ = nullptr;
    std::vector<member> members_;  ///< those the bus library has, too
    // What was read before a question, and for how long, in the second that began then.
    std::chrono::steady_clock::time_point reading_since_;
    std::chrono::steady_clock::duration read_for_{};
};

}  // namespace arvok::platform
