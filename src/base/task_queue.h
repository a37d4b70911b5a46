#pragma once
/// Hands work to the loop thread.
///
/// Nearly everything of the agent may only be touched from the loop thread. Any thread may post a task; tasks
/// travel through a pipe that the loop watches and run there in the order in which they were posted. What
/// takes long runs on a thread of its own first and posts its completion. The pipe has room for thousands of
/// tasks, and is no place to wait: whoever others can make post again and again has one task at a time in it
/// (base/outbox.h).

#include <memory>
#include <utility>

#include "base/descriptor.h"
#include "base/loop.h"

namespace arvok {

/// Something to be done once. Whoever holds it owns it and what it captured.
struct task {
    virtual ~task() = default;
    virtual void run() = 0;
};

/// A task of a callable, which is moved in.
template <typename Work>
std::unique_ptr<task> make_task(Work work) {
    struct work_task : task {
        explicit work_task(Work w) : work(std::move(w)) {}
        void run() override { work(); }
        Work work;
    };
    return std::make_unique<work_task>(std::move(work));
}

class task_queue {
  public:
    /// Opens the pipe and watches it; exits with status 1, after a log line, when there is none to be had.
    task_queue();
    /// Releases what is still queued without running it. Later posts of other threads are refused.
    ~task_queue();
    task_queue(const task_queue &) = delete;
    task_queue &operator=(const task_queue &) = delete;

    /// Queues a task for the loop thread, from any thread. False after one log line when the pipe is full:
    /// the task is then released.
    bool post(std::unique_ptr<task> work);
    template <typename Work>
    bool post(Work work) {
        return post(make_task(std::move(work)));
    }

    /// Runs `work` on a thread of its own, and then `done` on the loop thread; `done` is not run when the
    /// queue has gone meanwhile. False after one log line when there is no thread to be had: neither runs.
    bool run_aside(std::unique_ptr<task> work, std::unique_ptr<task> done);

  private:
    struct writer;

    void run_posted();

    descriptor reader_;
    std::shared_ptr<writer> writer_;  ///< shared with the threads under way
    readable_watch watch_;
};

}  // namespace arvok
