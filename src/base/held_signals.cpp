#include "base/held_signals.h"

#include <sys/signalfd.h>

#include <csignal>

namespace arvok {
namespace {

sigset_t ending_signals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    return both;
}

}  // namespace

held_signals::held_signals() : watch_(bind<&held_signals::end_loop>(*this)) {
    const sigset_t both = ending_signals();
    pthread_sigmask(SIG_BLOCK, &both, nullptr);
}

void held_signals::watch() {
    const sigset_t both = ending_signals();
    come_.reset(signalfd(-1, &both, SFD_NONBLOCK | SFD_CLOEXEC));
    // Without a descriptor they do what they would have done without us.
    if (!come_ || !watch_.start(come_.get()))
        pthread_sigmask(SIG_UNBLOCK, &both, nullptr);
}

void held_signals::ignore() {
    watch_.stop();
    come_.reset();
}

// It is left where it is, so that is_ending() goes on to say so.
void held_signals::end_loop() {
    uloop_end();
}

bool is_ending() {
    sigset_t come;
    sigpending(&come);
    return uloop_cancelling() || sigismember(&come, SIGINT) == 1 || sigismember(&come, SIGTERM) == 1;
}

}  // namespace arvok
