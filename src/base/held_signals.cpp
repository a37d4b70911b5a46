#include "base/held_signals.h"

#include <cerrno>
#include <ctime>

namespace arvok {

held_signals::held_signals() {
    sigemptyset(&held_);
    sigaddset(&held_, SIGINT);
    sigaddset(&held_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &held_, &before_);
}

held_signals::~held_signals() {
    if (!kept_)
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool held_signals::wait(int seconds) const {
    const timespec limit{.tv_sec = seconds, .tv_nsec = 0};
    int number;
    do
        number = sigtimedwait(&held_, nullptr, &limit);
    while (number < 0 && errno == EINTR);
    return number > 0;
}

}  // namespace arvok
