// Turns of the loop, as tests take them. Not by a limit for its run: older releases take that for the limit
// of a wait.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

/// From ready() on, ends the loop as soon as it has handled what has come.
class loop_end {
  public:
    loop_end() {
        watch_.fd = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
        watch_.cb = [](uloop_fd *fd, unsigned int) {
            // The first time, others may still be behind it.
            if (++static_cast<watch *>(fd)->times == 2)
                uloop_end();
        };
    }
    ~loop_end() {
        uloop_fd_delete(&watch_);
        close(watch_.fd);
    }
    loop_end(const loop_end &) = delete;
    loop_end &operator=(const loop_end &) = delete;

    void ready() { uloop_fd_add(&watch_, ULOOP_READ); }

  private:
    struct watch : uloop_fd {
        int times;
    } watch_{};
};

/// Handles what has come.
inline void run_loop_once() {
    loop_end end;
    end.ready();
    uloop_run_timeout(-1);
}

/// Runs the loop for so many milliseconds, and handles what has come by then. Somebody may end it before.
inline void run_loop_for(int ms) {
    struct limit : uloop_timeout {
        loop_end end;
    } over{};
    over.cb = [](uloop_timeout *timeout) { static_cast<limit *>(timeout)->end.ready(); };
    uloop_timeout_set(&over, ms + 1);  // a timer may run up to a millisecond early
    uloop_run_timeout(-1);
    uloop_timeout_cancel(&over);
}

}  // namespace arvok
