// Preloaded into the agent of a home: the time of day comes from the home's clock, which lab-clock sets, and
// everything else - timers, log - from the machine's. $LAB_CLOCK names a file with the difference in seconds.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
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
