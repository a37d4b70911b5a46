/// The bus object "lab.cloud": everything a person, a script or a test does with the platform.
#pragma once

#include <cstdint>

#include "bus.h"
#include "cloud.h"
#include "faults.h"
#include "traffic.h"

namespace arvok::lab {

class BusObject : public PeerBus {
  public:
    /// All borrowed; `bus` must be on the loop already.
    BusObject(ubus_context *bus, Cloud &cloud, Traffic &traffic, Faults &faults);
    ~BusObject();

  private:
    static const ubus_method methods[];

    int request(ubus_request_data *request, const cJSON *arguments);
    int send(ubus_request_data *request, const cJSON *arguments);
    int raw(ubus_request_data *request, const cJSON *arguments);
    int peer(ubus_request_data *request, const cJSON *arguments);
    int devices(ubus_request_data *request, const cJSON *arguments);
    int statistics(ubus_request_data *request, const cJSON *arguments);
    int turn(ubus_request_data *request, const cJSON *arguments);
    int forget(ubus_request_data *request, const cJSON *arguments);
    int set(ubus_request_data *request, const cJSON *arguments);
    int misbehave(ubus_request_data *request, const cJSON *arguments);

    void answered(int connection, const cJSON *message);

    Cloud &cloud_;
    Faults &faults_;
    std::int64_t id_ = 0;  ///< of the last request that brought none
};

}  // namespace arvok::lab
