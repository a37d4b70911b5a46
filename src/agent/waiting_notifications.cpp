#include "agent/waiting_notifications.h"

#include <algorithm>
#include <utility>

#include "base/log.h"

namespace arvok {
namespace {

std::size_t size_of(const waiting_notification &heard) {
    return heard.method.size() + heard.text.size() + heard.host.size();
}

}  // namespace

void waiting_notifications::add(waiting_notification heard) {
    while (waiting_.size() >= count_max || (!empty() && bytes_ + size_of(heard) > bytes_max))
        drop(heard.host);
    heard.number = ++newest_;
    bytes_ += size_of(heard);
    waiting_.push_back(std::move(heard));
}

void waiting_notifications::drop(const std::string &host) {
    if (dropped_++ == 0)
        log_printf("[WARNING] too many notifications of the platform: old ones are dropped\n");
    auto oldest = waiting_.begin();
    if (!host.empty())
        oldest = std::find_if(waiting_.begin(), waiting_.end(),
                              [&host](const waiting_notification &waiting) { return waiting.host == host; });
    if (oldest == waiting_.end())
        oldest = waiting_.begin();
    bytes_ -= size_of(*oldest);
    waiting_.erase(oldest);
}

std::optional<waiting_notification> waiting_notifications::take() {
    if (empty())
        return std::nullopt;
    waiting_notification oldest = std::move(waiting_.front());
    waiting_.pop_front();
    bytes_ -= size_of(oldest);
    if (empty() && dropped_ > 0)
        log_printf("[INFO] %zu notifications of the platform were dropped\n", std::exchange(dropped_, 0));
    return oldest;
}

}  // namespace arvok
