#include "base/loop.h"

#include <sys/eventfd.h>

namespace arvok {

timer::timer(callback<void()> fire) : fire_(fire), timeout_(*this) {
    timeout_.cb = [](uloop_timeout *timeout) { owner_of<timer>(timeout).fire_(); };
}

readable_watch::readable_watch(callback<void()> readable) : readable_(readable), watch_(*this) {
    watch_.fd = -1;
    watch_.cb = [](uloop_fd *watch, unsigned int) { owner_of<readable_watch>(watch).readable_(); };
}

bool readable_watch::start(int fd) {
    watch_.fd = fd;
    return uloop_fd_add(&watch_, ULOOP_READ) == 0;
}

void readable_watch::stop() {
    uloop_fd_delete(&watch_);  // also behind a hang-up, when only an event of it may be left
}

next_round::next_round(callback<void()> fire)
    : fire_(fire),
      always_readable_(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)),
      turn_(bind<&next_round::pass>(*this)),
      instead_(bind<&next_round::pass>(*this)) {}

// What is watched anew comes last.
void next_round::arm() {
    cancel();
    if (!always_readable_ || !turn_.start(always_readable_.get()))
        instead_.arm(0);
}

void next_round::cancel() {
    turn_.stop();
    instead_.cancel();
}

void next_round::pass() {
    cancel();
    fire_();
}

}  // namespace arvok
