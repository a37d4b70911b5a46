// Preloaded into the agent of a home: the time of day comes from the home's clock, which lab-clock sets, and
// everything else - timers, log - from the machine's. $LAB_CLOCK names a file with the difference in seconds.
//
// Whoever wants to be told when the clock is set, by a timerfd that is cancelled then, is told when the file
// is replaced: in place of the timer he gets a descriptor that becomes readable. Nothing can be read from it;
// arming it anew ends that.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

static long long difference(void) {
    const int saved = errno;
    const char *path = getenv("LAB_CLOCK");
    char text[32] = "";
    const int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0) {
        if (read(fd, text, sizeof text - 1) < 0)
            text[0] = '\0';
        close(fd);
    }
    errno = saved;
    return strtoll(text, NULL, 10);
}

time_t time(time_t *result) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += (time_t)difference();
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

static int setting = -1;  // the descriptor in a timer's place

int timerfd_create(clockid_t clock, int flags) {
    if (clock != CLOCK_REALTIME || !getenv("LAB_CLOCK"))
        return (int)syscall(SYS_timerfd_create, clock, flags);
    return setting = inotify_init1((flags & TFD_NONBLOCK) | (flags & TFD_CLOEXEC));
}

// Watches the file that is there now: lab-clock puts another in its place.
static int watch_clock(void) {
    const char *path = getenv("LAB_CLOCK");
    char events[4096];
    const int fd = open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0)
        close(fd);
    while (read(setting, events, sizeof events) > 0)
        ;
    return inotify_add_watch(setting, path, IN_ATTRIB | IN_DELETE_SELF) < 0 ? -1 : 0;
}

int timerfd_settime(int fd, int flags, const struct itimerspec *time, struct itimerspec *before) {
    static int (*next)(int, int, const struct itimerspec *, struct itimerspec *);
    if (fd >= 0 && fd == setting)
        return watch_clock();
    if (!next)
        *(void **)&next = dlsym(RTLD_NEXT, "timerfd_settime");
    return next(fd, flags, time, before);
}
