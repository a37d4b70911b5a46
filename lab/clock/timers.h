/// What a program that holds the agent's timers in its hand shares with it: the file that $LAB_TIMERS names,
/// mapped by both.
#ifndef LAB_TIMERS_H
#define LAB_TIMERS_H

#include <stdint.h>

/// All zero in a new file. Times are in milliseconds.
struct lab_timers {
    /// Written outside: how far to be ahead of the machine's clock. It only grows.
    volatile int64_t ahead;
    /// Written by the agent, like all that follows: how far ahead it is. It takes a new value when its loop
    /// waits, never in between.
    volatile int64_t taken;
    /// The loop's waits, a long one counted several times.
    volatile int64_t waits;
    /// When the loop last found nothing to do: the timers that were armed, and the bytes of the heap that
    /// were in use. -1: not known.
    volatile int64_t armed, heap;
};

#endif
