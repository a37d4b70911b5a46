/// The loop's timers and descriptor watches as C++ objects that end with their owner.
#pragma once

#include <functional>

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::lab {

/// A one-shot timer; cancelled when destroyed. Its function may re-arm or destroy it.
class Timer : private uloop_timeout {
  public:
    explicit Timer(std::function<void()> fired);
    ~Timer();
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    void set(int milliseconds);
    void cancel();
    bool armed() const { return pending; }

  private:
    std::function<void()> fired_;
};

/// A descriptor that is owned (closed at the end) and watched. The object must not be destroyed by its own
/// function; `close` may be called there.
class Watch : private uloop_fd {
  public:
    explicit Watch(std::function<void(unsigned events)> ready);
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    /// Takes over `descriptor` and starts watching it for `events` (ULOOP_READ, ULOOP_WRITE).
    void open(int descriptor, unsigned events);
    /// Changes what an open descriptor is watched for.
    void want(unsigned events);
    void close();
    int descriptor() const { return fd; }
    /// True when the loop saw an error or a hang-up and has stopped watching.
    bool broken() const { return error; }

  private:
    std::function<void(unsigned)> ready_;
};

}  // namespace arvok::lab
