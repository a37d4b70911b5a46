#pragma once
/// Who is to be told, and how a C callback finds them.

#include <utility>

namespace arvok {

/// A member function and the object that it is called on, which must outlive the callback. Empty by default.
template <typename Signature>
class callback;

template <typename Result, typename... Arguments>
class callback<Result(Arguments...)> {
  public:
    using thunk = Result (*)(void *object, Arguments... arguments);

    constexpr callback() = default;
    constexpr callback(void *object, thunk call) : object_(object), call_(call) {}

    explicit operator bool() const { return call_ != nullptr; }
    Result operator()(Arguments... arguments) const {
        return call_(object_, std::forward<Arguments>(arguments)...);
    }

  private:
    void *object_ = nullptr;
    thunk call_ = nullptr;
};

namespace detail {

template <auto Method, typename Owner, typename Result, typename... Arguments>
callback<Result(Arguments...)> bind_method(Owner &owner, Result (Owner::*)(Arguments...)) {
    return {&owner, [](void *object, Arguments... arguments) -> Result {
                return (static_cast<Owner *>(object)->*Method)(std::forward<Arguments>(arguments)...);
            }};
}

}  // namespace detail

/// `bind<&owner_type::method>(owner)`: the method as a callback.
template <auto Method, typename Owner>
auto bind(Owner &owner) {
    return detail::bind_method<Method>(owner, Method);
}

/// A record that a C library works on and hands to its callbacks, with a way back to its owner.
template <typename Record, typename Owner>
struct owned : Record {
    explicit owned(Owner &o) : Record{}, owner(&o) {}
    Owner *owner;
};

/// The owner of a record that a C callback was handed: `owner_of<owner_type>(record)`.
template <typename Owner, typename Record>
Owner &owner_of(Record *record) {
    return *static_cast<owned<Record, Owner> *>(record)->owner;
}

}  // namespace arvok
