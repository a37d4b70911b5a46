#include "app_messages.h"

#include <algorithm>
#include <cstdlib>

#include "owned.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::qzcapd {
namespace {

struct FreeBlob {
    void operator()(blob_attr *attr) const { std::free(attr); }
};

}  // namespace

/// A message on its way.
struct AppMessages::Pending {
    Owned<ubus_request, Pending> request{this};
    Owned<uloop_timeout, Pending> timer{this};
    AppMessages *owner = nullptr;
    Done done;
    std::unique_ptr<blob_attr, FreeBlob> answer;
};

AppMessages::AppMessages(ubus_context *ctx) : ctx_(ctx) {}

AppMessages::~AppMessages() {
    end_all();
}

void AppMessages::end_all() {
    while (!pending_.empty()) {
        ubus_abort_request(ctx_, &pending_.back()->request);
        conclude(pending_.back().get(), UBUS_STATUS_CONNECTION_FAILED);
    }
}

std::uint32_t AppMessages::find(const std::string &app) {
    std::uint32_t id = 0;
    return ubus_lookup_id(ctx_, ("qzapp." + app).c_str(), &id) == 0 ? id : 0;
}

int AppMessages::send(std::uint32_t object, blob_attr *message, int timeout_ms, Done done) {
    auto pending = std::make_unique<Pending>();
    if (const int status = ubus_invoke_async(ctx_, object, "postmsg", message, &pending->request);
        status != 0) {
        return status;
    }
    pending->owner = this;
    pending->done = std::move(done);
    pending->request.data_cb = [](ubus_request *request, int, blob_attr *msg) {
        if (msg != nullptr) {
            decltype(Pending::request)::of(request)->answer.reset(blob_memdup(msg));
        }
    };
    pending->request.complete_cb = [](ubus_request *request, int status) {
        auto *self = decltype(Pending::request)::of(request);
        self->owner->conclude(self, status);
    };
    pending->timer.cb = [](uloop_timeout *timer) {
        auto *self = decltype(Pending::timer)::of(timer);
        ubus_abort_request(self->owner->ctx_, &self->request);
        self->owner->conclude(self, UBUS_STATUS_TIMEOUT);
    };
    uloop_timeout_set(&pending->timer, timeout_ms);
    pending_.push_back(std::move(pending));
    ubus_complete_request_async(ctx_, &pending_.back()->request);
    return UBUS_STATUS_OK;
}

void AppMessages::conclude(Pending *pending, int status) {
    const auto found = std::ranges::find_if(pending_, [&](const auto &p) { return p.get() == pending; });
    const std::unique_ptr<Pending> owner = std::move(*found);
    pending_.erase(found);
    uloop_timeout_cancel(&owner->timer);
    owner->done(status, owner->answer.get());
}

}  // namespace arvok::qzcapd
