#include "base/deadline.h"

namespace arvok {
namespace {

constexpr int reading_ms = 10;   // until it is looked again whether the loop has read what lies there
constexpr int holding_ms = 500;  // until it is looked again whether the owner reads on

}  // namespace

deadline::deadline(stream &from, callback<void()> missed)
    : stream_(from), missed_(missed), timer_(bind<&deadline::look>(*this)) {}

void deadline::arm(int ms) {
    ms_ = ms;
    asked_ = stream_.written();
    taken_ = stream_.delivered();
    was_behind_ = stream_.unsent() > 0;
    in_time_.reset();
    timer_.arm(ms);
}

void deadline::look() {
    if (stream_.is_on_hold()) {
        in_time_.reset();
        return timer_.arm(holding_ms);
    }
    if (!in_time_)
        in_time_ = stream_.arrived();
    const bool is_read = stream_.has_served(*in_time_);
    if (!is_read && !stream_.is_held())
        return timer_.arm(reading_ms);
    const std::uint64_t delivered = stream_.delivered();
    const bool is_behind = delivered <= asked_;
    if (delivered == taken_ || (is_read && !is_behind && !was_behind_))
        return missed_();
    if (is_read)
        in_time_.reset();
    was_behind_ = is_behind;
    taken_ = delivered;
    timer_.arm(ms_);
}

}  // namespace arvok
