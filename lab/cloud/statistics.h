/// What the platform has done since its start, in numbers that only grow.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "json.h"
#include "segments.h"

namespace arvok::lab {

class Statistics {
  public:
    void accepted() { accepted_++; }
    /// A connection has ended that has taken so many segments.
    void ended(const Segments &segments) {
        segments_.received += segments.received;
        segments_.sent += segments.sent;
    }
    /// Of all connections that have ended.
    const Segments &segments() const { return segments_; }
    /// A whole frame, header and all.
    void received(std::size_t bytes) { received_.add(bytes); }
    void sent(std::size_t bytes) { sent_.add(bytes); }
    /// A device's message was answered, with Result 0 or another one.
    void answered(std::string_view method, bool good);

    /// Adds "accepted", "received" and "sent" (each "frames" and "bytes"), "answered" (by method), "refused"
    /// and "cpu_ms", the processor time of this process.
    void describe(cJSON *object) const;

  private:
    struct Passed {
        std::int64_t frames = 0, bytes = 0;

        void add(std::size_t size) { frames++, bytes += static_cast<std::int64_t>(size); }
        json_ptr describe() const;
    };

    static constexpr std::array<std::string_view, 7> methods{
        "Boot",      "GetChallengeCode",    "Activate",          "Connect",
        "Heartbeat", "InstallNotification", "PluginNotification"};

    Segments segments_;
    std::int64_t accepted_ = 0, refused_ = 0;
    Passed received_, sent_;
    std::array<std::int64_t, methods.size()> answered_{};
};

}  // namespace arvok::lab
