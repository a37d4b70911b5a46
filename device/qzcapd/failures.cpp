#include "failures.h"

#include <algorithm>

#include "calls.h"

namespace arvok::qzcapd {
namespace {

/// The one call that ends after its answer.
constexpr const capi::Call &completing = capi::call_of("qzcap_install_app");

}  // namespace

std::string Failures::order(const std::string &function, const Failure &failure) {
    if (std::ranges::none_of(capi::calls, [&](const auto &call) { return function == call.function; })) {
        return "call: no such function: " + function;
    }
    if (failure.completion && function != completing.function) {
        return "completion: " + function + " ends with its answer";
    }
    if (failure.completion && failure.mode == Failure::Mode::blank) {
        return "mode: an outcome is not blank";
    }
    const auto key = std::make_pair(function, failure.completion);
    orders_.erase(key);
    if (failure.times > 0) {
        orders_.emplace(key, failure);
    }
    return "";
}

std::optional<Failure> Failures::take(const std::string &function, bool completion) {
    const auto found = orders_.find({function, completion});
    if (found == orders_.end()) {
        return std::nullopt;
    }
    Failure failure = found->second;
    if (--found->second.times == 0) {
        orders_.erase(found);
    }
    return failure;
}

}  // namespace arvok::qzcapd
