#include "base/clock_watch.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace arvok {
namespace {

constexpr std::time_t year_s = 31536000;  // far enough, and a date that every system knows

}  // namespace

clock_watch::clock_watch(callback<void()> set) : set_(set), watch_(bind<&clock_watch::noticed>(*this)) {}

void clock_watch::start() {
    watch_.stop();
    timer_.reset(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!timer_)
        return;
    arm();
    watch_.start(timer_.get());
}

// A timer for a time of day, which the system cancels when that is no longer as far away as it was.
void clock_watch::arm() {
    itimerspec far{};
    far.it_value.tv_sec = std::time(nullptr) + year_s;
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &far, nullptr);
}

// Armed before it is told: whoever looks at the clock then misses no later setting. After a year without any
// it tells as well; a look at the clock does no harm.
void clock_watch::noticed() {
    std::uint64_t times;
    if (read(timer_.get(), &times, sizeof times) < 0 && errno == EAGAIN)
        return;
    arm();
    set_();
}

}  // namespace arvok
