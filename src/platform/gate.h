#pragma once
/// The one way to the calls of the platform library and to methods of the bus, so that a platform that does
/// not answer cannot hold the loop for longer than two of its time-outs.
///
/// What timed out is not called again, and after time-outs of two different callees nothing is: such calls
/// fail at once, as if they had timed out. That holds for the message that is being handled, and for
/// everything else that has come meanwhile: it has waited already. When the loop has served all of that, the
/// platform is asked again, and for a message that its sender sent only after the answer. Once the process is
/// to end (`is_ending`), every call fails at once.
///
/// Nor can a message with many calls that are answered, or refused, hold the loop: those that go beyond its
/// share fail in the same way.
///
/// Calls of this kind come from the loop thread only. Releasing records, copying texts, the log and the
/// session (session.h, subscription.h) ask no platform daemon and do without.

extern "C" {
#include "platform/qzcap.h"
}

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "base/loop.h"

namespace arvok::platform {

/// Whose answer is waited for: a function of the platform library, or a method of a bus object.
struct callee {
    void (*function)() = nullptr;
    std::uint32_t object = 0;
    std::string method{};

    bool operator==(const callee &) const = default;
};

class attempt;
class message_scope;

/// How long the calls of one message may take together, in milliseconds. The longest does not count: one that
/// is slow by itself, as a change of channel may be, costs the others nothing.
struct message_share {
    /// Whoever asks for everything once, sets everything once, or sets all hosts of a home is through with so
    /// many calls; they take about as long as one that is not answered.
    static constexpr int few = 64, few_ms = 3000;
    /// Those behind them are made only as long as nobody who waits would notice.
    static constexpr int many_ms = 400;
};

/// What has timed out. There is one, for as long as the session lasts; without one every call is made.
class gate {
  public:
    gate();
    ~gate();
    gate(const gate &) = delete;
    gate &operator=(const gate &) = delete;

    /// How many calls were not made so far: who tries again what failed can tell whether it was tried.
    static std::size_t held_back();
    /// The message under way has its answer: what was put off until then does not depend on its share.
    static void message_answered();

  private:
    friend attempt;
    friend message_scope;

    bool is_silent(const callee &to) const;
    void add(const callee &to);
    void forget();

    std::array<callee, 2> silent_;
    std::size_t count_ = 0;
    std::size_t held_back_ = 0;
    next_round served_;
    message_scope *message_ = nullptr;  ///< under way
    const void *without_more_ =
        nullptr;  ///< the sender of the last message that lost by it, and had sent no other
};

/// A message while it is handled.
class message_scope {
  public:
    /// `has_more` tells whether more of the sender has come already.
    message_scope(const void *sender, callback<bool()> has_more);
    ~message_scope();
    message_scope(const message_scope &) = delete;
    message_scope &operator=(const message_scope &) = delete;

  private:
    friend attempt;
    friend gate;

    bool has_share() const;
    void made(std::int64_t took_ms);

    const void *const sender_;
    const callback<bool()> has_more_;
    struct {
        int count = 0;
        std::int64_t took_ms = 0, longest_ms = 0;
    } calls_;
};

/// One call, from its beginning on.
class attempt {
  public:
    explicit attempt(callee to);
    ~attempt();
    attempt(const attempt &) = delete;
    attempt &operator=(const attempt &) = delete;

    /// Whether it may be made.
    bool is_allowed() const { return allowed_; }
    /// It was made and has failed: by not being answered, if that took so long.
    void failed() const;
    /// It was made and has timed out.
    void timed_out() const;

  private:
    callee to_;
    bool allowed_;
    std::int64_t began_ms_;
};

namespace detail {

// The reason of a call that is not made.
void give_reason(char **errtext);
template <typename Argument>
void give_reason(const Argument &) {}

}  // namespace detail

/// Calls a function of the platform library. When it may not be called: null, or -1 and a reason.
///
///     const mesh_record mesh(call(qzcap_get_mesh));
template <typename Result, typename... Parameters>
Result call(Result (*function)(Parameters...), std::type_identity_t<Parameters>... arguments) {
    const attempt made({.function = reinterpret_cast<void (*)()>(function)});
    if (!made.is_allowed()) {
        (detail::give_reason(arguments), ...);
        if constexpr (std::is_pointer_v<Result>)
            return nullptr;
        else
            return -1;
    }
    const Result result = function(arguments...);
    bool has_failed;
    if constexpr (std::is_pointer_v<Result>)
        has_failed = !result;
    else
        has_failed = result < 0;
    if (has_failed)
        made.failed();
    return result;
}

/// Calls a method of a bus object, whose answer goes to `answered` with `priv` in the request. The status of
/// the call: that of a time-out when it may not be called, UBUS_STATUS_NOT_SUPPORTED at once when the object
/// is this process's own, for nobody would serve it.
int invoke(std::uint32_t object, const std::string &method, blob_attr *message, ubus_data_handler_t answered,
           void *priv, int timeout_ms);

}  // namespace arvok::platform
