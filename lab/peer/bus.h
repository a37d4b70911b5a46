/// A peer's place on the bus: the object, the methods that all peers have, and the requests that wait for
/// their replies.
#pragma once

#include <cjson/cJSON.h>

#include <functional>
#include <list>
#include <memory>
#include <span>
#include <string>

#include "connection.h"
#include "faults.h"
#include "json.h"
#include "loop.h"
#include "traffic.h"

extern "C" {
#include <libubus.h>
}

namespace arvok::lab {

/// The name of a member that is not among `known`, or null.
const char *unknown_member(const cJSON *arguments, std::span<const blobmsg_policy> known);

/// Reads an optional truth value; false when it is there and none.
bool read_bool(const cJSON *arguments, const char *name, bool &value);

class PeerBus {
  public:
    PeerBus(const PeerBus &) = delete;
    PeerBus &operator=(const PeerBus &) = delete;

    /// Puts the object on the bus; returns a bus status.
    int publish();
    const char *name() const { return object_.name; }

  protected:
    /// All borrowed; `bus` must be on the loop already.
    PeerBus(ubus_context *bus, Traffic &traffic, const char *name, std::span<const ubus_method> methods);
    ~PeerBus();

    /// A row of a table of methods. The library's own macros for it are not C++ in every release.
    template <typename Peer, auto Method>
    static constexpr ubus_method row(const char *name, std::span<const blobmsg_policy> arguments = {}) {
        ubus_method method{};
        method.name = name;
        method.handler = entry<Peer, Method>;
        method.policy = arguments.data();
        method.n_policy = static_cast<int>(arguments.size());
        return method;
    }

    /// The C callback that finds its way to a method of `Peer`.
    template <typename Peer, auto Method>
    static int entry(ubus_context *, ubus_object *object, ubus_request_data *request, const char *,
                     blob_attr *message) {
        const json_ptr arguments = from_bus(message);
        if (!arguments)
            return UBUS_STATUS_INVALID_ARGUMENT;
        return (static_cast<Peer *>(static_cast<Object *>(object)->owner)->*Method)(request, arguments.get());
    }

    /// What `messages` takes, and the method itself.
    static constexpr blobmsg_policy messages_arguments[] = {{"direction", BLOBMSG_TYPE_STRING},
                                                            {"after", BLOBMSG_TYPE_INT32},
                                                            {"type", BLOBMSG_TYPE_STRING},
                                                            {"clear", BLOBMSG_TYPE_BOOL}};
    int messages(ubus_request_data *request, const cJSON *arguments);

    /// What `raw` takes, and the method itself; `send` says false when nobody is connected.
    static constexpr blobmsg_policy raw_arguments[] = {
        {"hex", BLOBMSG_TYPE_STRING}, {"split", BLOBMSG_TYPE_INT32}, {"interval", BLOBMSG_TYPE_INT32}};
    int raw(const cJSON *arguments, const std::function<bool(std::string bytes, const Pace &pace)> &send);

    /// `peer`: describes the peer and whether somebody watches it.
    int peer(ubus_request_data *request, const cJSON *arguments, json_ptr description);

    /// `misbehave`, which takes `known` arguments: arms a fault, and lets it take effect on what listens.
    int misbehave(const cJSON *arguments, std::span<const blobmsg_policy> known, Faults &faults,
                  const std::function<bool()> &update_listening);

    /// Logs why a call is refused, for the call to return.
    int invalid(const std::string &why);
    int not_found(const std::string &why);

    int reply(ubus_request_data *request, const cJSON *object);

    /// Lets a call wait for the reply that `replied` will be given for `connection` and `key`; without one it
    /// ends as timed out. There is room for so many.
    bool can_wait() const;
    void wait(ubus_request_data *request, int connection, std::string key, int timeout);
    void replied(int connection, const std::string &key, const cJSON *message);
    /// The connection has ended, and with it all calls that wait for it.
    void ended(int connection);

  private:
    struct Object : ubus_object {
        PeerBus *owner;
    };
    struct Pending {
        int connection;
        std::string key;
        ubus_request_data request{};
        std::unique_ptr<Timer> timeout;
    };

    void finish(std::list<Pending>::iterator pending, int status);

    ubus_context *bus_;
    Traffic &traffic_;
    ubus_object_type type_{};
    Object object_{};
    blob_buf buffer_{};
    std::list<Pending> pending_;
};

}  // namespace arvok::lab
