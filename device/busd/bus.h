// What is on the bus: objects, and who watches whom. The requests of the clients act on it.
//
// Clients are known by their ids, objects likewise, so that nothing here points to what may have gone.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "client.h"
#include "frame.h"

namespace arvok {

/// What an object offers. Objects of one kind share it under one id.
struct ObjectType {
    uint32_t id = 0;
    std::vector<uint8_t> signature;  ///< a blobmsg table per method
};

struct EventPattern {
    std::string text;
    bool prefix = false;

    bool matches(std::string_view event) const {
        return prefix ? event.substr(0, text.size()) == text : event == text;
    }
};

struct Object {
    uint32_t id = 0;
    uint32_t owner = 0;
    std::string path;                   ///< empty for one that only subscribes
    std::shared_ptr<ObjectType> type;   ///< null without a path
    std::vector<uint32_t> subscribers;  ///< one entry per subscription, in the order they came
    std::vector<uint32_t> targets;      ///< objects that it subscribes to, one entry per subscription
    std::vector<EventPattern> patterns;
};

class Bus {
  public:
    /// Greets a new client.
    void join(Client &client);

    /// Takes a client and all its objects off the bus.
    void leave(Client &client);

    /// An id that is not in use.
    uint32_t new_client_id() const;

    Client *find_client(uint32_t id) const;
    Object *find_object(uint32_t id);

    /// The object of this id if it is on the bus and this client's, otherwise null.
    Object *find_own_object(const Client &client, const blob_attr *id);

    /// The objects whose path this is; with a trailing '*' those whose path begins so.
    std::vector<const Object *> lookup(std::string_view path) const;

    /// The type of this id, null when no object has it.
    std::shared_ptr<ObjectType> find_type(uint32_t id) const;
    std::shared_ptr<ObjectType> add_type(std::vector<uint8_t> signature);

    /// Puts an object on the bus and tells the listeners. Null when the path is taken.
    Object *add_object(Client &owner, std::string path, std::shared_ptr<ObjectType> type);

    /// Tells subscribers and listeners that the object is gone; who has called it waits on.
    void remove_object(uint32_t id);

    /// Subscribing again is another subscription: everything is then told twice.
    void subscribe(Object &subscriber, Object &target);
    /// Ends one subscription; false when there was none.
    bool unsubscribe(Object &subscriber, Object &target);

    /// Sends to whoever has a matching pattern, but not back to `sender`.
    void send_event(uint32_t sender, const std::string &name, const blob_attr *data);

  private:
    void announce(const Object &object, const char *event);
    void tell_activity(const Object &target, bool active);

    std::unordered_map<uint32_t, Client *> clients_;
    std::unordered_map<uint32_t, std::unique_ptr<Object>> objects_;
    std::map<std::string, Object *, std::less<>> paths_;
    std::unordered_map<uint32_t, std::weak_ptr<ObjectType>> types_;
};

}  // namespace arvok
