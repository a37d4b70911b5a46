/// The record of everything that passes: one log line, one bus notification and, for frames, one entry of a
/// bounded history each.
#pragma once

#include <cjson/cJSON.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "json.h"

extern "C" {
#include <libubus.h>
}

namespace arvok::lab {

enum class Direction { rx, tx };

/// Further members of a notification, all texts.
using Labels = std::vector<std::pair<const char *, std::string>>;

/// A message that passed.
struct Passage {
    Direction direction;
    int connection;
    const char *how;  ///< how it is sealed, for the log; may be empty
    bool encrypted;
    std::size_t length;  ///< of the body, as on the wire
    const char *type;    ///< what `messages` selects by; null: nothing
    const cJSON *message;
    Labels labels = {};
};

/// What `messages` is asked for.
struct HistoryQuery {
    bool rx = true;
    bool tx = false;
    std::int64_t after = 0;  ///< only entries with a higher "number"
    std::string type;        ///< only messages of this type; empty: all
};

/// "13:05:59.123".
std::string time_of_day();

/// Writes a line with the time of day to standard output.
void log_line(const std::string &text);

class Traffic {
  public:
    Traffic();
    ~Traffic();
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    /// Where notifications go, once the object is on the bus; null stops them. Both are borrowed.
    void publish(ubus_context *bus, ubus_object *object);

    /// A line about a connection; `connection` 0 means none in particular.
    void event(int connection, const std::string &text) const;

    /// A connection came ("connected") or went ("disconnected"): line and notification.
    void connection_event(int connection, const char *what, const std::string &address,
                          const std::string &why, const Labels &labels = {});

    void message(const Passage &passage);

    /// The matching entries in the order of arrival, as array "messages" of `reply`; the oldest are left out
    /// (and "left_out" counts them) when they do not fit into one bus message.
    void history(const HistoryQuery &query, blob_buf *reply) const;
    void clear() { entries_.clear(), held_ = 0; }

  private:
    struct Entry {
        Direction direction;
        std::int64_t number;
        std::string type;
        std::unique_ptr<blob_attr, Releaser<std::free>> blob;  ///< the notification's message
    };

    void add_labels(const Labels &labels);
    void notify(const char *method);
    void remember(Entry entry);

    std::chrono::steady_clock::time_point start_;
    ubus_context *bus_ = nullptr;
    ubus_object *object_ = nullptr;
    blob_buf buffer_{};
    std::deque<Entry> entries_;
    std::size_t held_ = 0;  ///< bytes in the entries' blobs
    std::int64_t number_ = 0;
};

}  // namespace arvok::lab
