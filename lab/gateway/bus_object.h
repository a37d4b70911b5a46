/// The bus object "lab.gateway": everything a person, a script or a test does with the gateway.
#pragma once

#include "bus.h"
#include "faults.h"
#include "gateway.h"
#include "traffic.h"

namespace arvok::lab {

class BusObject : public PeerBus {
  public:
    /// All borrowed; `bus` must be on the loop already.
    BusObject(ubus_context *bus, Gateway &gateway, Traffic &traffic, Faults &faults);
    ~BusObject();

  private:
    static const ubus_method methods[];

    int request(ubus_request_data *request, const cJSON *arguments);
    int send(ubus_request_data *request, const cJSON *arguments);
    int raw(ubus_request_data *request, const cJSON *arguments);
    int peer(ubus_request_data *request, const cJSON *arguments);
    int misbehave(ubus_request_data *request, const cJSON *arguments);

    Gateway &gateway_;
    Faults &faults_;
};

}  // namespace arvok::lab
