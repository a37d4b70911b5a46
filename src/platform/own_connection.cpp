#include "platform/own_connection.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/session.h"

namespace arvok::platform {
namespace {

// What the daemon keeps for a connection is usually read in less. It may be asked hundreds of times in one
// turn of the loop, so this holds for all of a second together.
constexpr std::chrono::milliseconds reading_time(300);
constexpr std::chrono::seconds reading_pause(1);

}  // namespace

// The bus is the one that the platform library has found.
bool own_connection::open() {
    if (bus_)
        return true;
    sockaddr_un daemon{};
    socklen_t size = sizeof daemon - 1;
    const bool is_known =
        getpeername(qzcap_get_ubus_context()->sock.fd, reinterpret_cast<sockaddr *>(&daemon), &size) == 0 &&
        daemon.sun_path[0] != '\0';
    bus_ = ubus_connect(is_known ? daemon.sun_path : nullptr);
    if (!bus_)
        return false;
    bus_->connection_lost = end_with_bus;
    ubus_add_uloop(bus_);
    return true;
}

// The bus library waits without limit for an answer of the daemon, which drops it when too much lies before
// it: nothing is asked before that is read. False when it does not end.
bool own_connection::read_up() {
    using clock = std::chrono::steady_clock;
    const auto began = clock::now();
    if (began - reading_since_ >= reading_pause) {
        reading_since_ = began;
        read_for_ = {};
    }
    const auto end = began + (reading_time - read_for_);
    auto now = began;
    bool is_read;
    while (!(is_read = !has_unread(*bus_)) && now < end) {
        ubus_handle_event(bus_);
        now = clock::now();
    }
    read_for_ += now - began;
    return is_read;
}

// A connection on which too much comes is given up, with what the daemon keeps for it, for a new one, on
// which nothing lies before the answers yet.
void own_connection::start_over() {
    const std::vector<member> before = std::exchange(members_, {});
    close();
    for (const member &each : before)
        if (!add(each))
            each.subscriber->remove_cb(nullptr, each.subscriber, each.object);
}

bool own_connection::add(const member &added) {
    if (open() && ubus_register_subscriber(bus_, added.subscriber) == UBUS_STATUS_OK) {
        members_.push_back(added);
        if (ubus_subscribe(bus_, added.subscriber, added.object) == UBUS_STATUS_OK)
            return true;
        unsubscribe(*added.subscriber, added.object);
    }
    if (members_.empty())
        close();
    return false;
}

bool own_connection::subscribe(ubus_subscriber &to, std::uint32_t object) {
    if (object == 0)
        return false;
    if (bus_ && !read_up())
        start_over();
    return add({&to, object});
}

// What the library would not let go of goes with the connection.
bool own_connection::unsubscribe(ubus_subscriber &to, std::uint32_t object) {
    const auto found =
        std::find_if(members_.begin(), members_.end(), [&](const member &m) { return m.subscriber == &to; });
    if (found == members_.end())
        return false;
    const bool is_its_object = found->object == object;
    members_.erase(found);
    if (members_.empty())
        close();
    else if (!read_up() || ubus_unregister_subscriber(bus_, &to) != UBUS_STATUS_OK)
        start_over();
    return is_its_object;
}

// What came while the library waited for an answer is served first: it would not release it.
void own_connection::close() {
    members_.clear();
    if (!bus_)
        return;
    bus_->connection_lost = [](ubus_context *) {};
    ubus_handle_event(bus_);
    ubus_free(std::exchange(bus_, nullptr));
}

}  // namespace arvok::platform
