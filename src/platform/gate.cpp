#include "platform/gate.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/held_signals.h"
#include "platform/session.h"

namespace arvok::platform {
namespace {

// The platform library does not say why a call has failed. It waits seconds for an answer, and daemons refuse
// at once what they refuse.
constexpr std::int64_t unanswered_ms = 900;

// Calls come from everywhere, as the library's functions would be called.
gate *opened;

std::int64_t now_ms() {
    const auto passed = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
}

}  // namespace

gate::gate() : served_(bind<&gate::forget>(*this)) {
    opened = this;
}

gate::~gate() {
    opened = nullptr;
}

bool gate::is_silent(const callee &to) const {
    const auto end = silent_.begin() + static_cast<std::ptrdiff_t>(count_);
    return count_ == silent_.size() || std::find(silent_.begin(), end, to) != end;
}

void gate::add(const callee &to) {
    if (count_ == silent_.size())
        return;
    silent_[count_++] = to;
    without_more_ = message_ && !message_->has_more_() ? message_->sender_ : nullptr;
    served_.arm();
}

void gate::forget() {
    count_ = 0;
    without_more_ = nullptr;
    served_.cancel();
}

message_scope::message_scope(const void *sender, callback<bool()> has_more)
    : sender_(sender), has_more_(has_more) {
    if (!opened)
        return;
    if (opened->without_more_ == sender_)
        opened->forget();
    opened->message_ = this;
}

message_scope::~message_scope() {
    if (opened)
        opened->message_ = nullptr;
}

bool message_scope::has_share() const {
    using share = message_share;
    return calls_.took_ms - calls_.longest_ms < (calls_.count < share::few ? share::few_ms : share::many_ms);
}

void message_scope::made(std::int64_t took_ms) {
    calls_.count++;
    calls_.took_ms += took_ms;
    calls_.longest_ms = std::max(calls_.longest_ms, took_ms);
}

std::size_t gate::held_back() {
    return opened ? opened->held_back_ : 0;
}

void gate::message_answered() {
    if (opened && opened->message_)
        opened->message_->calls_ = {};
}

attempt::attempt(callee to) : to_(std::move(to)), allowed_(true), began_ms_(now_ms()) {
    if (!opened)
        return;
    allowed_ =
        !opened->is_silent(to_) && !is_ending() && (!opened->message_ || opened->message_->has_share());
    opened->held_back_ += !allowed_;
}

attempt::~attempt() {
    if (allowed_ && opened && opened->message_)
        opened->message_->made(now_ms() - began_ms_);
}

void attempt::failed() const {
    if (now_ms() - began_ms_ >= unanswered_ms)
        timed_out();
}

void attempt::timed_out() const {
    if (opened)
        opened->add(to_);
}

void detail::give_reason(char **errtext) {
    if (errtext)
        *errtext = qzcap_strdup(ubus_strerror(UBUS_STATUS_TIMEOUT));
}

int invoke(std::uint32_t object, const std::string &method, blob_attr *message, ubus_data_handler_t answered,
           void *priv, int timeout_ms) {
    if (is_own_object(object))
        return UBUS_STATUS_NOT_SUPPORTED;
    const attempt made({.object = object, .method = method});
    if (!made.is_allowed())
        return UBUS_STATUS_TIMEOUT;
    const int status =
        ubus_invoke(qzcap_get_ubus_context(), object, method.c_str(), message, answered, priv, timeout_ms);
    if (status == UBUS_STATUS_TIMEOUT)
        made.timed_out();
    return status;
}

}  // namespace arvok::platform
