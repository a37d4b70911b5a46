#include "base/held_signals.h"

#include <ctime>

namespace arvok {

held_signals::held_signals() {
    sigemptyset(&held_);
    sigaddset(&held_, SIGINT);
    sigaddset(&held_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &held_, &before_);
}

held_signals::~held_signals() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool held_signals::wait(int seconds) const {
    const timespec limit{.tv_sec = seconds, .tv_nsec = 0};
    return sigtimedwait(&held_, nullptr, &limit) > 0;
}

}  // namespace arvok
