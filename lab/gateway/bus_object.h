/// The bus object "lab.gateway": everything a person, a script or a test does with the gateway.
#pragma once

#include <list>

#include "faults.h"
#include "gateway.h"
#include "loop.h"
#include "traffic.h"

extern "C" {
#include <libubus.h>
}

namespace arvok::lab {

class BusObject {
  public:
    /// All borrowed; `bus` must be on the loop already.
    BusObject(ubus_context *bus, Gateway &gateway, Traffic &traffic, Faults &faults);
    ~BusObject();
    BusObject(const BusObject &) = delete;
    BusObject &operator=(const BusObject &) = delete;

    /// Puts the object on the bus; returns a bus status.
    int publish();

  private:
    /// A `request` that waits for its reply.
    struct Pending {
        Sent sent;
        ubus_request_data request{};
        std::unique_ptr<Timer> timeout;
    };

    /// The C callbacks find their way here: the object on the bus and its owner.
    struct Object : ubus_object {
        BusObject *owner;
    };
    template <int (BusObject::*Method)(ubus_request_data *, const cJSON *)>
    static int entry(ubus_context *, ubus_object *object, ubus_request_data *request, const char *name,
                     blob_attr *message);
    static const ubus_method methods[];
    static ubus_object_type type;

    int request(ubus_request_data *request, const cJSON *arguments);
    int send(ubus_request_data *request, const cJSON *arguments);
    int raw(ubus_request_data *request, const cJSON *arguments);
    int messages(ubus_request_data *request, const cJSON *arguments);
    int peer(ubus_request_data *request, const cJSON *arguments);
    int misbehave(ubus_request_data *request, const cJSON *arguments);

    int invalid(const std::string &why);
    int reply(ubus_request_data *request, const cJSON *object);
    void replied(int connection, const cJSON *message);
    void finish(std::list<Pending>::iterator pending, int status);

    ubus_context *bus_;
    Gateway &gateway_;
    Traffic &traffic_;
    Faults &faults_;
    Object object_{};
    blob_buf buffer_{};
    std::list<Pending> pending_;
};

}  // namespace arvok::lab
