/// Failures on order: which of the next calls of the platform's functions fail, and how.
#ifndef ARVOK_QZCAPD_FAILURES_H
#define ARVOK_QZCAPD_FAILURES_H

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace arvok::qzcapd {

/// How a call fails on demand.
struct Failure {
    enum class Mode {
        error,    ///< answered with a result of -1 and the reason
        timeout,  ///< never answered
        empty,    ///< answered without any data
        blank,    ///< answered well, with nothing in the record, list or text
    } mode = Mode::error;
    std::string reason;
    unsigned int times = 1;   ///< 0 withdraws the order
    bool completion = false;  ///< the call succeeds; what it has started fails
};

class Failures {
  public:
    /// Orders the failure of the next calls of a function; replaces an earlier order. Returns what is wrong
    /// with it, or an empty text.
    std::string order(const std::string &function, const Failure &failure);

    /// The failure that the function's call, or the completion of what it started, is to have now, if any.
    std::optional<Failure> take(const std::string &function, bool completion);

  private:
    std::map<std::pair<std::string, bool>, Failure> orders_;
};

}  // namespace arvok::qzcapd

#endif
