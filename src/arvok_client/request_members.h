#pragma once
/// The members of a request from the gateway, read in the order in which they are checked.
///
/// The first one that is missing, mistyped or out of range is recorded as error 10002 "invalid NAME", and
/// nothing behind it is looked at: what is read then is empty and means nothing. So a caller reads everything
/// that it needs, asks ok() once, and has changed nothing before. Texts are borrowed from the message.

#include <cstdint>
#include <vector>

#include "arvok_client/bands.h"
#include "common/json.h"

namespace arvok {

class request_members {
  public:
    /// Of anything but an object every member is missing.
    explicit request_members(const cJSON *object) : object_(object) {}

    bool ok() const { return ok_; }
    /// Whether the request gives the member, valid or not: for those that may be left out.
    bool has(const char *name) const { return json_member(object_, name) != nullptr; }

    const char *text(const char *name);
    /// "ON" or "OFF", as the platform's "yes" or "no".
    const char *yes_no(const char *name);
    /// Any number, cut to an int.
    int number(const char *name);
    /// A whole number in [min, max].
    std::int32_t number(const char *name, std::int32_t min, std::int32_t max);
    /// A whole number from 1 on, or its decimal text: bytes.
    std::uint32_t size(const char *name);
    /// A band that this device has.
    const wifi_band *band(const char *name);
    /// A text, or an array of at least one.
    std::vector<const char *> text_or_texts(const char *name);
    /// An array; null when it is none.
    const cJSON *array(const char *name);

    /// Records the member as invalid, for checks that only the caller can make.
    void refuse(const char *name);

  private:
    /// The member, unless an earlier one was refused.
    const cJSON *next(const char *name) const { return ok_ ? json_member(object_, name) : nullptr; }

    const cJSON *object_;
    bool ok_ = true;
};

}  // namespace arvok
