#include "utask/utask.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

extern "C" {
#include <libubox/uloop.h>
#include <qzcap.h>
}

#include "utask/log.h"

namespace arvok {
namespace {

// A task as it travels through the pipe: well below the pipe's atomic size, so tasks of several threads never
// mix.
struct task {
    void *arg;
    utask_fn fn;
};
static_assert(sizeof(task) == 2 * sizeof(void *));
static_assert(sizeof(void *) != 4 || sizeof(task) == 8, "8 bytes on the device");

struct utask_task {
    void *arg;
    utask_fn fn;
    utask_fn done;
};

constexpr int full_pipe_ms = 10;  // a worker's wait for room

std::atomic<int> write_fd{-1};
uloop_fd reader{};

// One wake-up drains every complete task; whatever else read() says ends the pass.
void read_cb(uloop_fd *watch, unsigned int) {
    task t;
    while (read(watch->fd, &t, sizeof t) == static_cast<ssize_t>(sizeof t))
        if (t.fn)
            t.fn(t.arg);
}

// What is still queued when everything ends: a task with an argument runs, so that it can let go of it, which
// is all that is left to do with the modules gone; one without owns nothing. Tasks that these queue are not
// waited for.
void release_queued_tasks() {
    int queued = 0;
    ioctl(reader.fd, FIONREAD, &queued);
    task t;
    for (; queued >= static_cast<int>(sizeof t); queued -= static_cast<int>(sizeof t)) {
        if (read(reader.fd, &t, sizeof t) != static_cast<ssize_t>(sizeof t))
            return;
        if (t.fn && t.arg)
            t.fn(t.arg);
    }
}

bool write_task(const task &t) {
    ssize_t written;
    do
        written = write(write_fd, &t, sizeof t);
    while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(sizeof t);
}

void log_failure() {
    qzcap_printf("[ERROR] %s write pipe failed\n", "utask_set");
}

// Unlike others, a worker can wait until the loop has made room in the pipe: its completion must not get
// lost.
void *worker(void *record) {
    const utask_task t = *static_cast<utask_task *>(record);
    std::free(record);
    if (t.fn)
        t.fn(t.arg);
    if (!t.done)
        return nullptr;
    while (!write_task({t.arg, t.done})) {
        if (errno != EAGAIN) {
            log_failure();
            break;
        }
        poll(nullptr, 0, full_pipe_ms);
    }
    return nullptr;
}

}  // namespace

void utask_init() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        qzcap_printf("[ERROR] open pipe failed\n");
        std::exit(1);
    }
    write_fd = ends[1];
    reader.fd = ends[0];
    reader.cb = read_cb;
    uloop_fd_add(&reader, ULOOP_READ);
}

void utask_done() {
    release_queued_tasks();
    const int writer = write_fd.exchange(-1);  // a worker that ends only now is refused
    uloop_fd_delete(&reader);
    close(reader.fd);
    close(writer);
    uloop_done();
}

int utask_set(void *arg, utask_fn fn) {
    if (write_task({arg, fn}))
        return 0;
    log_failure();
    return -1;
}

int utask_asyn_set(void *arg, utask_fn fn, utask_fn done) {
    auto *t = static_cast<utask_task *>(ucalloc(sizeof(utask_task), "utask.cpp", __LINE__));
    *t = {arg, fn, done};
    pthread_t thread;
    if (pthread_create(&thread, nullptr, worker, t) != 0) {
        qzcap_printf("[ERROR] create pthread failed\n");
        std::free(t);
        return -1;
    }
    pthread_detach(thread);
    return 0;
}

}  // namespace arvok
