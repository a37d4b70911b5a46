#pragma once
/// The calls of one "ubus_call", made one after the other beside the loop, and its reply.
///
/// What fails at once needs no turn of the loop. Within a message, a method that was not answered in time is
/// not called again, and after two of them none is: the rest fails at once, as if it had timed out, too.

#include <memory>
#include <optional>
#include <string>

#include "gateway/request.h"
#include "platform/bus_call.h"

namespace arvok::gateway {

class bus_calls {
  public:
    struct result {
        bool consumed = false;  ///< else the message is not answered
        json::value reply = {};
    };
    using handler = callback<void(result)>;

    /// `done` is told when the last call of a message has ended.
    explicit bus_calls(handler done);
    /// Aborts.
    ~bus_calls();

    /// Begins with a message that has its envelope. Its result, when there is one at once; else `done` is
    /// told of it. The message need not be kept.
    std::optional<result> begin(const request &r);
    /// Forgets the message that is under way, if any: nothing more is called, and nobody is told.
    void abort();

  private:
    struct method {
        std::string object, name;

        bool operator==(const method &) const = default;
    };
    struct message;

    static std::optional<method> method_of(json::view element);
    std::optional<result> go_on();
    bool call(json::view arguments);
    void ended(int status, platform::bus_call::answer data);
    void take(int status, blob_attr *data);
    void end_element();
    result finish();

    handler done_;
    platform::bus_call call_;
    std::unique_ptr<message> message_;  ///< under way
};

}  // namespace arvok::gateway
