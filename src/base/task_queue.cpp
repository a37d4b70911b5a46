#include "base/task_queue.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "base/log.h"

namespace arvok {
namespace {

constexpr int full_pipe_ms = 10;  // a thread's wait for room

// Below the pipe's atomic size: tasks of several threads never mix.
struct queued_task {
    task *work;
};

// The next task in the pipe; null when it is empty.
std::unique_ptr<task> next_task(int pipe) {
    queued_task next;
    const bool whole = read(pipe, &next, sizeof next) == static_cast<ssize_t>(sizeof next);
    return std::unique_ptr<task>(whole ? next.work : nullptr);
}

}  // namespace

// The pipe's end that all threads write to. A thread that ends when the queue has gone finds it closed.
struct task_queue::writer {
    enum class outcome { queued, full, closed };

    outcome write(std::unique_ptr<task> &work) {
        const std::lock_guard<std::mutex> guard(lock);
        if (!end)
            return outcome::closed;
        const queued_task next{work.get()};
        ssize_t written;
        do
            written = ::write(end.get(), &next, sizeof next);
        while (written < 0 && errno == EINTR);
        if (written != static_cast<ssize_t>(sizeof next))
            return errno == EAGAIN ? outcome::full : outcome::closed;
        static_cast<void>(work.release());  // the reader's from here on
        return outcome::queued;
    }

    void close() {
        const std::lock_guard<std::mutex> guard(lock);
        end.reset();
    }

    std::mutex lock;
    descriptor end;
};

// Not by make_shared: without run-time types that calls the C++ library, which brings its exceptions along
// where it is linked in.
task_queue::task_queue() : writer_(new writer), watch_(bind<&task_queue::run_posted>(*this)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0 || !watch_.start(ends[0])) {
        log_printf("[ERROR] open pipe failed\n");
        std::exit(1);
    }
    reader_.reset(ends[0]);
    writer_->end.reset(ends[1]);
}

task_queue::~task_queue() {
    writer_->close();
    while (next_task(reader_.get())) {
    }
}

// One wake-up runs every task there is; whatever else read() says ends the pass.
void task_queue::run_posted() {
    while (const std::unique_ptr<task> next = next_task(reader_.get()))
        next->run();
}

bool task_queue::post(std::unique_ptr<task> work) {
    if (writer_->write(work) == writer::outcome::queued)
        return true;
    log_printf("[ERROR] utask_set write pipe failed\n");
    return false;
}

bool task_queue::run_aside(std::unique_ptr<task> work, std::unique_ptr<task> done) {
    struct job {
        std::unique_ptr<task> work, done;
        std::shared_ptr<writer> to;
    };
    auto started = std::make_unique<job>(job{std::move(work), std::move(done), writer_});
    // Unlike others, this thread can wait until the loop has made room: its completion must not get lost.
    const auto body = [](void *argument) -> void * {
        const std::unique_ptr<job> own(static_cast<job *>(argument));
        own->work->run();
        while (own->to->write(own->done) == writer::outcome::full)
            poll(nullptr, 0, full_pipe_ms);
        return nullptr;
    };
    pthread_t thread;
    if (pthread_create(&thread, nullptr, body, started.get()) != 0) {
        log_printf("[ERROR] create pthread failed\n");
        return false;
    }
    static_cast<void>(started.release());  // the thread's
    pthread_detach(thread);
    return true;
}

}  // namespace arvok
