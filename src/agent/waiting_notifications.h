#pragma once
/// Notifications of the platform that wait for their turn, in the order in which they came. There is a limit:
/// beyond it an old one goes.

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>

namespace arvok {

class platform_events;

/// A notification, and who serves it.
struct waiting_notification {
    void (*serve)(platform_events &events, const waiting_notification &next);
    std::string method;
    std::string text;        ///< as JSON
    std::string host;        ///< whom it is about; empty: no host
    std::uint64_t number{};  ///< rises from one to the next; given by add()
};

class waiting_notifications {
  public:
    /// More hosts than a home has; with their texts a quarter of a megabyte.
    static constexpr std::size_t count_max = 1024;
    static constexpr std::size_t bytes_max = std::size_t{256} * 1024;

    /// Adds it behind all others. Where that is too much the oldest of the same host goes, what it said being
    /// the oldest news; without one, the oldest of all.
    void add(waiting_notification heard);
    /// Takes the oldest; nothing when there is none.
    std::optional<waiting_notification> take();

    bool empty() const { return waiting_.empty(); }
    /// Of the newest that was added.
    std::uint64_t newest() const { return newest_; }

  private:
    void drop(const std::string &host);

    std::list<waiting_notification> waiting_;
    std::size_t bytes_ = 0;  ///< of the texts
    std::uint64_t newest_ = 0;
    std::size_t dropped_ = 0;  ///< since there was none
};

}  // namespace arvok
