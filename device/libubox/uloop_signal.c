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

void uloop_signals_take(void) {
    for (size_t i = 0; i < ARRAY_SIZE(taken); i++) {
        struct sigaction action;

        sigaction(taken[i].number, NULL, &action);
        if ((action.sa_flags & SA_SIGINFO) || action.sa_handler != SIG_DFL)
            continue;
        action.sa_handler = taken[i].handler;
        sigemptyset(&action.sa_mask);
        action.sa_flags = taken[i].number == SIGCHLD ? SA_NOCLDSTOP : 0;
        sigaction(taken[i].number, &action, &taken[i].before);
    }
}

void uloop_signals_return(void) {
    for (size_t i = 0; i < ARRAY_SIZE(taken); i++) {
        struct sigaction action;

        sigaction(taken[i].number, NULL, &action);
        if (!(action.sa_flags & SA_SIGINFO) && action.sa_handler == taken[i].handler)
            sigaction(taken[i].number, &taken[i].before, NULL);
    }
}

void uloop_sigpipe_ignore(bool ignore) {
    static bool ours;
    struct sigaction action;

    sigaction(SIGPIPE, NULL, &action);
    if (ignore && !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL) {
        action.sa_handler = SIG_IGN;
        ours = sigaction(SIGPIPE, &action, NULL) == 0;
    } else if (!ignore && ours) {
        action.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &action, NULL);
        ours = false;
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

void uloop_child_look(void) {
    child_ended = 1;
}
