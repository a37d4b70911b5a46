#pragma once
/// An open file descriptor, closed at its end.

#include <unistd.h>

#include <utility>

namespace arvok {

class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(descriptor &&other) noexcept : fd_(other.release()) {}
    descriptor &operator=(descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~descriptor() { reset(); }

    /// -1 when there is none.
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace arvok
