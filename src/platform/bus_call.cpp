#include "platform/bus_call.h"

#include <utility>

#include "platform/session.h"

namespace arvok::platform {
namespace {

// The loop runs timers before it reads the bus: what came in time while it was busy is heard first.
constexpr int reading_ms = 10;

}  // namespace

bus_call::bus_call(handler ended) : ended_(ended), request_(*this), due_(bind<&bus_call::due>(*this)) {}

int bus_call::begin(std::uint32_t object, const std::string &method, blob_attr *message, int timeout_ms) {
    abort();
    if (is_own_object(object))
        return UBUS_STATUS_NOT_SUPPORTED;
    ubus_context *const bus = qzcap_get_ubus_context();
    const int status = ubus_invoke_async(bus, object, method.c_str(), message, &request_);
    if (status != UBUS_STATUS_OK)
        return status;
    request_.data_cb = qzcap_data_blob_cb;
    request_.priv = &data_;
    request_.complete_cb = [](ubus_request *of, int result) { owner_of<bus_call>(of).completed(result); };
    under_way_ = true;
    is_late_ = false;
    due_.arm(timeout_ms);
    ubus_complete_request_async(bus, &request_);
    return UBUS_STATUS_OK;
}

void bus_call::abort() {
    due_.cancel();
    if (std::exchange(under_way_, false))
        ubus_abort_request(qzcap_get_ubus_context(), &request_);
    answer(std::exchange(data_, nullptr)).reset();
}

// Any call that waits for the bus may come here: who is told goes on with work of their own.
void bus_call::completed(int status) {
    under_way_ = false;
    status_ = status;
    due_.arm(0);
}

void bus_call::due() {
    if (under_way_ && !std::exchange(is_late_, true))
        return due_.arm(reading_ms);
    answer data(std::exchange(data_, nullptr));
    const int status = under_way_ ? UBUS_STATUS_TIMEOUT : status_;
    abort();
    ended_(status, std::move(data));
}

}  // namespace arvok::platform
