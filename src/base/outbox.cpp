#include "base/outbox.h"

#include <utility>

#include "base/log.h"

namespace arvok {
namespace {

// Ten seconds of a busy home's reports, or the hosts of a crowded one; both connections together take an
// eighth of the memory that the agent may take on any account.
constexpr std::size_t room = std::size_t{256} * 1024;
constexpr std::size_t room_again = room / 2;

// What a short message takes beside its text.
constexpr std::size_t message_overhead = 64;

std::size_t size_of(const json::value &message) {
    return message.text().size() + message_overhead;
}

}  // namespace

outbox::outbox(task_queue &tasks, stream &to, const handlers &owner, const lines &log)
    : tasks_(tasks), stream_(to), owner_(owner), log_(log) {}

std::size_t outbox::waiting() {
    return posted_bytes_ + stream_.unsent();
}

bool outbox::takes(std::size_t bytes) {
    const std::size_t before = waiting(), limit = dropped_ > 0 ? room_again : room;
    return owner_.is_ready() && bytes <= json::text_max &&
           (before == 0 || before + bytes + message_overhead <= limit);
}

bool outbox::expects(std::size_t bytes) {
    if (takes(bytes))
        return true;
    drop();
    return false;
}

void outbox::drop() {
    if (dropped_++ == 0)
        log_printf(log_.begin, owner_.is_ready() ? 1 : 0, static_cast<int>(waiting()));
}

bool outbox::admit(const json::value &message) {
    if (!takes(message.text().size())) {
        drop();
        return false;
    }
    if (const unsigned long dropped = std::exchange(dropped_, 0); dropped > 0)
        log_printf(log_.end, dropped);
    return true;
}

void outbox::send(json::value message) {
    if (admit(message))
        owner_.write(std::move(message));
}

void outbox::post(json::value message) {
    if (!admit(message))
        return;
    if (!queued_ && !(queued_ = tasks_.post([this] { send_waiting(); })))
        return drop();
    posted_bytes_ += size_of(message);
    posted_.push_back(std::move(message));
}

void outbox::send_waiting() {
    queued_ = false;
    posted_bytes_ = 0;
    for (json::value &message : std::exchange(posted_, {})) {
        if (owner_.is_ready())
            owner_.write(std::move(message));
        else
            drop();
    }
}

void outbox::clear() {
    posted_bytes_ = 0;
    for (std::size_t left = std::exchange(posted_, {}).size(); left > 0; left--)
        drop();
}

}  // namespace arvok
