#pragma once
/// The members of a part of a request, read in the order in which they are checked.
///
/// The first one that is missing, mistyped or out of range is recorded as error 10002 "invalid NAME", and
/// nothing behind it is looked at: what is read then is empty and means nothing. So a caller reads everything
/// that it needs, asks ok() once, and has changed nothing before. Texts are borrowed from the message and
/// terminated by a zero.

#include <cstdint>
#include <string_view>
#include <vector>

#include "gateway/request.h"

namespace arvok::gateway {

class request_members {
  public:
    /// Of anything but an object every member is missing.
    request_members(request &in, json::view object) : request_(in), object_(object) {}

    bool ok() const { return ok_; }
    /// Whether the request gives the member, valid or not: for those that may be left out.
    bool has(const char *name) const { return static_cast<bool>(object_[name]); }

    std::string_view text(const char *name);
    /// "ON" or "OFF", as the platform's "yes" or "no".
    std::string_view yes_no(const char *name);
    /// Any number, without its fraction.
    int number(const char *name);
    /// A whole number in [min, max].
    std::int32_t number(const char *name, std::int32_t min, std::int32_t max);
    /// A whole number from 1 on, or its decimal text: bytes.
    std::uint32_t size(const char *name);
    /// A band that this device has.
    const platform::band &band(const char *name);
    /// A text, or an array of at least one; none of them is null.
    std::vector<const char *> text_or_texts(const char *name);
    json::view array(const char *name);

    /// Records the member as invalid, for checks that only the caller can make.
    void refuse(const char *name);

  private:
    /// The member, unless an earlier one was refused.
    json::view next(const char *name) const { return ok_ ? object_[name] : json::view(); }

    request &request_;
    json::view object_;
    bool ok_ = true;
};

}  // namespace arvok::gateway
