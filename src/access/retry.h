#pragma once
/// When to try again what the platform refused: after 10 s, then after twice as long each time, up to 5
/// minutes.

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
    /// There was no time to try it.
    void put_off(long now) { due_ = now + first_s; }
    bool was_refused() const { return delay_s_ > 0; }
    /// Seconds until it is to be tried again, at least one.
    int remaining(long now) const { return static_cast<int>(std::max(1L, due_ - now)); }

  private:
    static constexpr int first_s = 10, longest_s = 300;

    int delay_s_ = 0;
    long due_ = 0;
};

}  // namespace arvok::access
