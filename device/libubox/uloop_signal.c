#include <errno.h>
#include <libubox/uloop.h>
#include <stdint.h>
#include <unistd.h>

#include "uloop_private.h"

int uloop_wake_fd = -1;

static volatile sig_atomic_t termination;
static volatile sig_atomic_t child_ended;

static void wake(void) {
    int saved = errno;
    uint64_t one = 1;

    /* A full counter is readable already. */
    if (write(uloop_wake_fd, &one, sizeof(one)) < 0)
        errno = saved;
    errno = saved;
}

static void on_termination(int number) {
    termination = number;
    uloop_cancelled = true;
    wake();
}

static void on_child(int number) {
    (void)number;
    child_ended = 1;
    wake();
}

struct taken {
    int number;
    void (*handler)(int);
    struct sigaction before;
};

static struct taken taken[] = {
    {.number = SIGINT, .handler = on_termination},
    {.number = SIGTERM, .handler = on_termination},
    {.number = SIGCHLD, .handler = on_child},
};

static bool is(const struct sigaction *action, void (*handler)(int)) {
    return !(action->sa_flags & SA_SIGINFO) && action->sa_handler == handler;
}

static void take(struct taken *signal) {
    struct sigaction action;

    sigaction(signal->number, NULL, &action);
    if (!is(&action, SIG_DFL))
        return;
    action.sa_handler = signal->handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = signal->number == SIGCHLD ? SA_NOCLDSTOP : 0;
    sigaction(signal->number, &action, &signal->before);
}

void uloop_signals_take(void) {
    struct taken sigpipe = {.number = SIGPIPE, .handler = SIG_IGN};

    for (size_t i = 0; i < ARRAY_SIZE(taken); i++)
        take(&taken[i]);
    take(&sigpipe);
}

void uloop_signals_return(void) {
    for (size_t i = 0; i < ARRAY_SIZE(taken); i++) {
        struct sigaction action;

        sigaction(taken[i].number, NULL, &action);
        if (is(&action, taken[i].handler))
            sigaction(taken[i].number, &taken[i].before, NULL);
    }
}

int uloop_signal_number(void) {
    return termination;
}

void uloop_signal_forget(void) {
    termination = 0;
}

bool uloop_child_ended(void) {
    bool ended = child_ended;

    child_ended = 0;
    return ended;
}
