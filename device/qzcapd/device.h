/// The emulated device: its state, its objects on the bus, the journal of calls and the failures on order.
#ifndef ARVOK_QZCAPD_DEVICE_H
#define ARVOK_QZCAPD_DEVICE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps.h"
#include "calls_table.h"
#include "json.h"

extern "C" {
#include <libubus.h>
}

namespace arvok::qzcapd {

class Device {
  public:
    /// Tells who follows the journal about a new entry.
    using Watcher = std::function<void(const cJSON *entry)>;

    /// `state` has passed check_state. Apps have their files below ROOT/qzcap. The context must outlive the
    /// device.
    Device(ubus_context *ctx, json_ptr state, const std::string &root);
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    /// Puts the platform's objects on the bus. Returns a bus status.
    int publish();

    const cJSON *state() const { return state_.get(); }

    /// Merges a patch into the state and announces what changed. Returns what is wrong with it (the state
    /// then stays as it was), or an empty text.
    std::string patch(const cJSON *patch);

    /// The calls since the start or the last clear, oldest first. `left_out` says how many of the oldest are
    /// missing: those beyond `journal_limit`, and those that do not fit one bus message with the newer ones.
    json_ptr journal(std::size_t *left_out) const;
    void clear_journal() {
        journal_.clear();
        dropped_ = 0;
    }
    void watch_journal(Watcher watcher) { watcher_ = std::move(watcher); }

    Failures &failures() { return failures_; }

    /// Sends a notification of a numbered platform object. False: no such object, or it cannot be sent.
    bool notify(const Notification &notification);

  private:
    struct Object;
    struct Announced;
    static constexpr std::size_t journal_limit = 2000;
    static constexpr std::size_t journal_answer_limit =
        400000;  // bytes of JSON text; well below a bus message

    static int on_call(ubus_context *ctx, ubus_object *object, ubus_request_data *req, const char *method,
                       blob_attr *msg);
    int serve(const Row &row, ubus_request_data *req, const cJSON *args);
    Reply answer(const Row &row, const cJSON *args);
    void record(const Row &row, const cJSON *args);
    int respond(ubus_request_data *req, const Reply &reply);
    void announce(const Notification &notification);
    bool notify(const std::string &object, const char *method, const cJSON *message);

    ubus_context *ctx_;
    json_ptr state_;
    json_ptr factory_;
    std::vector<std::unique_ptr<Object>> objects_;
    std::vector<std::unique_ptr<Announced>> announced_;
    std::deque<json_ptr> journal_;
    std::size_t dropped_ = 0;  // entries that went beyond the limit
    Failures failures_;
    Watcher watcher_;
    std::unique_ptr<Apps> apps_;
};

}  // namespace arvok::qzcapd

#endif
