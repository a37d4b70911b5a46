// Preloaded into an agent whose timers shall not take their time: its monotonic clock and its uptime are
// ahead of the machine's by what $LAB_TIMERS says (timers.h), so that a timer of hours fires when it is told
// to.
//
// The clock moves only while the loop waits. Whatever takes real time, a call of the platform or an answer of
// a peer, finds its deadlines as they are.

#define _GNU_SOURCE
#include "timers.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

enum { SLICE_MS = 1 };  // how long a wait may overlook that the clock has been moved

static struct lab_timers *shared;
static int64_t at_start, ahead;  // of the shared value; of the machine's clock
static int (*armed)(void);       // of the bundled loop library

static void *next_of(const char *name) {
    return dlsym(RTLD_NEXT, name);
}

static int64_t now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1000000;
}

__attribute__((constructor)) static void open_shared(void) {
    const char *path = getenv("LAB_TIMERS");
    const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0)
        return;
    void *page = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (page == MAP_FAILED)
        return;
    *(void **)&armed = dlsym(RTLD_DEFAULT, "uloop_timeouts_armed");
    shared = page;
    at_start = shared->ahead;
    shared->taken = at_start;
}

// Where times have 64 bits by choice, the C library has the call under another name.
#ifdef __USE_TIME_BITS64
#define CLOCK_GETTIME "__clock_gettime64"
#else
#define CLOCK_GETTIME "clock_gettime"
#endif

int clock_gettime(clockid_t clock, struct timespec *time) {
    static int (*next)(clockid_t, struct timespec *);
    if (!next)
        *(void **)&next = next_of(CLOCK_GETTIME);
    const int result = next(clock, time);
    if (result == 0 && clock == CLOCK_MONOTONIC && ahead > 0) {
        time->tv_sec += (time_t)(ahead / 1000);
        time->tv_nsec += (long)(ahead % 1000) * 1000000;
        if (time->tv_nsec >= 1000000000) {
            time->tv_nsec -= 1000000000;
            time->tv_sec++;
        }
    }
    return result;
}

int sysinfo(struct sysinfo *info) {
    static int (*next)(struct sysinfo *);
    if (!next)
        *(void **)&next = next_of("sysinfo");
    const int result = next(info);
    if (result == 0)
        info->uptime += (long)(ahead / 1000);
    return result;
}

static void look(void) {
    shared->armed = armed ? armed() : -1;
#if __GLIBC_PREREQ(2, 33)
    shared->heap = (int64_t)mallinfo2().uordblks;
#else
    shared->heap = -1;
#endif
}

static int has_moved(void) {
    const int64_t moved = shared->ahead;
    if (moved - at_start == ahead)
        return 0;
    ahead = moved - at_start;
    shared->taken = moved;
    return 1;
}

// A wait that ends early, with nothing found: the loop looks at its timers again.
int epoll_wait(int fd, struct epoll_event *events, int room, int timeout) {
    static int (*next)(int, struct epoll_event *, int, int);
    if (!next)
        *(void **)&next = next_of("epoll_wait");
    if (!shared || timeout == 0)
        return next(fd, events, room, timeout);
    const int64_t end = now_ms() + timeout;
    int found;
    do {
        if (has_moved())
            return 0;
        shared->waits++;
        found = next(fd, events, room, SLICE_MS);
        if (found == 0)
            look();
    } while (found == 0 && (timeout < 0 || now_ms() < end));
    return found;
}
