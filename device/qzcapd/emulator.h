/// The bus object with which a desk handles the emulated device: "qzcapd.emulator".
#ifndef ARVOK_QZCAPD_EMULATOR_H
#define ARVOK_QZCAPD_EMULATOR_H

#include <memory>

#include "app_messages.h"
#include "device.h"

namespace arvok::qzcapd {

class Emulator {
  public:
    Emulator(ubus_context *ctx, Device &device);
    ~Emulator();
    Emulator(const Emulator &) = delete;
    Emulator &operator=(const Emulator &) = delete;

    /// Puts the object on the bus. Returns a bus status.
    int publish();

  private:
    struct BusObject;
    using Method = int (Emulator::*)(ubus_request_data *req, const cJSON *args);

    template <Method method>
    static int on_method(ubus_context *ctx, ubus_object *object, ubus_request_data *req, const char *name,
                         blob_attr *msg);
    int send(ubus_request_data *req, const cJSON *body);
    int refuse(ubus_request_data *req, const std::string &reason, int status);

    int state(ubus_request_data *req, const cJSON *args);
    int patch(ubus_request_data *req, const cJSON *args);
    int calls(ubus_request_data *req, const cJSON *args);
    int fail(ubus_request_data *req, const cJSON *args);
    int notify(ubus_request_data *req, const cJSON *args);
    int app(ubus_request_data *req, const cJSON *args);

    ubus_context *ctx_;
    Device &device_;
    std::unique_ptr<BusObject> object_;
    AppMessages app_messages_;
};

}  // namespace arvok::qzcapd

#endif
