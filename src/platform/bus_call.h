#pragma once
/// A call of a bus object that the loop does not wait for.

extern "C" {
#include <libubus.h>

#include "platform/qzcap.h"
}

#include <cstdint>
#include <string>

#include "base/callback.h"
#include "base/handle.h"
#include "base/loop.h"

namespace arvok::platform {

/// One call at a time. Its record is the bus library's while it is under way.
class bus_call {
  public:
    using answer = handle<blob_attr, &qzcap_free>;
    /// Told once of each call that was begun, on a turn of the loop of its own: how it ended, and with what,
    /// which may be nothing also when it succeeded. A call may be begun from here.
    using handler = callback<void(int status, answer data)>;

    explicit bus_call(handler ended);
    /// Aborts.
    ~bus_call() { abort(); }
    bus_call(const bus_call &) = delete;
    bus_call &operator=(const bus_call &) = delete;

    /// Begins a call that may take so many milliseconds. Returns UBUS_STATUS_OK, or why it could not begin,
    /// of which nobody is told then: UBUS_STATUS_NOT_SUPPORTED when the object is this process's own, for it
    /// would be called by the one who waits for it.
    int begin(std::uint32_t object, const std::string &method, blob_attr *message, int timeout_ms);
    /// Forgets the call that is under way, if any: nobody is told. The object may still carry it out.
    void abort();

  private:
    void completed(int status);
    void due();

    handler ended_;
    owned<ubus_request, bus_call> request_;
    timer due_;                  ///< the time-out, then the turn on which its end is told
    blob_attr *data_ = nullptr;  ///< as the library's own callback collects it
    int status_ = UBUS_STATUS_OK;
    bool under_way_ = false;  ///< the library has the request
    bool is_late_ = false;    ///< the time is over
};

}  // namespace arvok::platform
