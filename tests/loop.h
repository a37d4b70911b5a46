// Turns of the loop, as tests take them.
#pragma once

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok {

/// Runs the loop for so many milliseconds; for none, serves what is ready. Not with a limit for the run: older
/// releases take it for that of a wait.
inline void run_loop_for(int ms) {
    if (ms == 0) {
        uloop_run_timeout(0);
        return;
    }
    uloop_timeout end{};
    end.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&end, ms);
    uloop_run_timeout(-1);
    uloop_timeout_cancel(&end);
}

}  // namespace arvok
