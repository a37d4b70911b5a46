#pragma once
/// When to try again what was refused: after 10 s, then after twice as long each time, up to 5 minutes.

#include <algorithm>

namespace arvok::access {

class retry {
  public:
    /// It was tried and refused. `now` in seconds since boot. A try before its time changes nothing.
    void refused(long now) {
        if (now < due_)
            return;
        delay_s_ = delay_s_ == 0 ? first_s : std::min(2 * delay_s_, longest_s);
        due_ = now + delay_s_;
    }
    /// There was no time to try it: it waits, and keeps its place before what became due later.
    void put_off(long now) { put_off_until_ = now + first_s; }
    /// It failed: refused, unless the gate to the platform held it back, so that it was not tried.
    void failed(long now, bool was_tried) { was_tried ? refused(now) : put_off(now); }
    bool is_due(long now) const { return now >= next(); }
    /// Since when it has been due, or when it will be; 0 for what was never refused.
    long due() const { return due_; }
    /// Seconds until it is to be tried again, at least one.
    int remaining(long now) const { return static_cast<int>(std::max(1L, next() - now)); }

  private:
    static constexpr int first_s = 10, longest_s = 300;

    long next() const { return std::max(due_, put_off_until_); }

    int delay_s_ = 0;
    long due_ = 0, put_off_until_ = 0;
};

}  // namespace arvok::access
