/// What a program that holds the agent's timers in its hand shares with it: the file that $LAB_TIMERS names,
/// mapped by both.
#ifndef LAB_TIMERS_H
#define LAB_TIMERS_H

#include <stdint.h>

/// All zero in a new file. Each member has one writer.
struct lab_timers {
    volatile int64_t
        ahead;  ///< written outside: how many milliseconds to be ahead of the machine's clock; only grows
    volatile int64_t
        taken;  ///< how far ahead the agent is; it takes a new value when its loop waits, never in between
    volatile int64_t waits;  ///< counts the loop's waits, a long one several times
    volatile int64_t armed;  ///< timers that were armed when the loop last began to wait; -1: not known
};

#endif
