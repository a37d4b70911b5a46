#include "loop.h"

#include <unistd.h>

#include <utility>

namespace arvok::lab {

Timer::Timer(std::function<void()> fired) : uloop_timeout{}, fired_(std::move(fired)) {
    cb = [](uloop_timeout *timer) {
        // A copy, because the function may destroy the timer it belongs to.
        auto call = static_cast<Timer *>(timer)->fired_;
        call();
    };
}

Timer::~Timer() {
    cancel();
}

void Timer::set(int milliseconds) {
    uloop_timeout_set(this, milliseconds);
}

void Timer::cancel() {
    if (pending)
        uloop_timeout_cancel(this);
}

Watch::Watch(std::function<void(unsigned)> ready) : uloop_fd{}, ready_(std::move(ready)) {
    fd = -1;
    cb = [](uloop_fd *watched, unsigned events) { static_cast<Watch *>(watched)->ready_(events); };
}

Watch::~Watch() {
    close();
}

void Watch::open(int descriptor, unsigned events) {
    close();
    fd = descriptor;
    uloop_fd_add(this, events);
}

void Watch::want(unsigned events) {
    if (fd >= 0)
        uloop_fd_add(this, events);
}

void Watch::close() {
    if (fd < 0)
        return;
    uloop_fd_delete(this);
    ::close(fd);
    fd = -1;
}

}  // namespace arvok::lab
