#include "base/held_signals.h"

namespace arvok {

held_signals::held_signals() {
    sigemptyset(&held_);
    sigaddset(&held_, SIGINT);
    sigaddset(&held_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &held_, &before_);
}

void held_signals::release() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void held_signals::hold() {
    pthread_sigmask(SIG_BLOCK, &held_, nullptr);
}

}  // namespace arvok
