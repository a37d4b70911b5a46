#pragma once
/// Notifications of the platform that wait for their turn, in the order in which they came. There is a limit:
/// beyond it an old one goes.

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "base/json.h"

namespace arvok {

class platform_events;

/// A notification, and what is to be done with it.
struct heard_notification {
    void (platform_events::*act)(const heard_notification &heard, json::view event);
    std::string method;
    std::string text;        ///< as JSON
    std::string host;        ///< whom it is about; empty: no host
    std::uint64_t number{};  ///< rises from one to the next; given by add()
};

class waiting_notifications {
  public:
    /// More hosts than a home has; with their texts a quarter of a megabyte.
    static constexpr std::size_t count_max = 1024;
    static constexpr std::size_t bytes_max = 256 * 1024;

    /// Adds it behind all others. Where that is too much the oldest of the same host goes, what it said being
    /// the oldest news; without one, the oldest of all.
    void add(heard_notification heard);
    /// Takes the oldest; nothing when there is none.
    std::optional<heard_notification> take();

    bool empty() const { return waiting_.empty(); }
    /// Whether one waits that is to be acted on so.
    bool has(decltype(heard_notification::act) act) const;
    /// Of the newest that was added.
    std::uint64_t newest() const { return newest_; }

  private:
    void drop(const std::string &host);

    std::list<heard_notification> waiting_;
    std::size_t bytes_ = 0;  ///< of the texts
    std::uint64_t newest_ = 0;
    std::size_t dropped_ = 0;  ///< since there was none
};

}  // namespace arvok
