// Preloaded into an agent whose time shall pass faster than the machine's: its clocks, its uptime and what it
// waits run $LAB_SPEED times as fast. $LAB_SPEED is "FACTOR MONOTONIC REALTIME": a whole number from 1 on,
// and the machine's two clocks in nanoseconds at a moment that is the same for all clocks, so that all agents
// with one text have one time, whenever they are started.
//
// What the agent has the kernel watch for it, a quiet connection, is scaled as well. What the kernel and the
// C library do by themselves is not: the network, its retransmissions, the name service's patience.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <time.h>

enum { NS_PER_S = 1000000000 };

// Where times have 64 bits by choice, the C library has the call under another name.
#ifdef __USE_TIME_BITS64
#define CLOCK_GETTIME "__clock_gettime64"
#else
#define CLOCK_GETTIME "clock_gettime"
#endif

static int64_t factor = 1;
static int64_t monotonic_start, real_start;

static void *next_of(const char *name) {
    return dlsym(RTLD_NEXT, name);
}

__attribute__((constructor)) static void read_speed(void) {
    const char *text = getenv("LAB_SPEED");
    long long speed, monotonic, real;
    if (!text || sscanf(text, "%lld %lld %lld", &speed, &monotonic, &real) != 3 || speed < 1)
        return;
    factor = speed;
    monotonic_start = monotonic;
    real_start = real;
}

static int machine_clock(clockid_t clock, struct timespec *time) {
    static int (*next)(clockid_t, struct timespec *);
    if (!next)
        *(void **)&next = next_of(CLOCK_GETTIME);
    return next(clock, time);
}

static int64_t ns_of(const struct timespec *time) {
    return (int64_t)time->tv_sec * NS_PER_S + time->tv_nsec;
}

// How far the agents are ahead of the machine.
static int64_t ahead(void) {
    struct timespec now = {0};
    if (factor == 1 || machine_clock(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return (ns_of(&now) - monotonic_start) * (factor - 1);
}

static void set_time(struct timespec *time, int64_t ns) {
    time->tv_sec = (time_t)(ns / NS_PER_S);
    time->tv_nsec = (long)(ns % NS_PER_S);
}

int clock_gettime(clockid_t clock, struct timespec *time) {
    const int result = machine_clock(clock, time);
    if (result != 0 || factor == 1)
        return result;
    switch (clock) {
        case CLOCK_MONOTONIC:
            set_time(time, ns_of(time) + (ns_of(time) - monotonic_start) * (factor - 1));
            break;
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            set_time(time, ns_of(time) + ahead());
            break;
        default:
            break;  // what processors have worked stays
    }
    return result;
}

time_t time(time_t *result) {
    struct timespec now = {0};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

int sysinfo(struct sysinfo *info) {
    static int (*next)(struct sysinfo *);
    if (!next)
        *(void **)&next = next_of("sysinfo");
    const int result = next(info);
    if (result == 0)
        info->uptime += (long)(ahead() / NS_PER_S);
    return result;
}

// Rounded up, so that no wait ends before its time.
static int64_t scaled(int64_t value) {
    return value > 0 ? (value + factor - 1) / factor : value;
}

int epoll_wait(int fd, struct epoll_event *events, int room, int timeout) {
    static int (*next)(int, struct epoll_event *, int, int);
    if (!next)
        *(void **)&next = next_of("epoll_wait");
    return next(fd, events, room, (int)scaled(timeout));
}

int poll(struct pollfd *watched, nfds_t count, int timeout) {
    static int (*next)(struct pollfd *, nfds_t, int);
    if (!next)
        *(void **)&next = next_of("poll");
    return next(watched, count, (int)scaled(timeout));
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t size) {
    static int (*next)(int, int, int, const void *, socklen_t);
    int number;
    if (!next)
        *(void **)&next = next_of("setsockopt");
    if (level != IPPROTO_TCP || (name != TCP_KEEPIDLE && name != TCP_KEEPINTVL && name != TCP_USER_TIMEOUT) ||
        size != sizeof number)
        return next(fd, level, name, value, size);
    memcpy(&number, value, sizeof number);
    number = (int)scaled(number);
    return next(fd, level, name, &number, sizeof number);
}
