#include "bus.h"

#include <algorithm>
#include <random>

namespace arvok {

namespace {

// Ids are random so that one that is kept across a restart of its object or of the bus names nothing, rather
// than something else.
template <typename Used>
uint32_t new_id(Used used) {
    static std::random_device random;
    std::uniform_int_distribution<uint32_t> range(UBUS_SYSTEM_OBJECT_MAX + 1, UINT32_MAX);
    uint32_t id;

    do
        id = range(random);
    while (used(id));
    return id;
}

bool erase_one(std::vector<uint32_t> &ids, uint32_t id) {
    const auto found = std::find(ids.begin(), ids.end(), id);
    if (found == ids.end())
        return false;
    ids.erase(found);
    return true;
}

}  // namespace

uint32_t Bus::new_client_id() const {
    return new_id([this](uint32_t id) { return clients_.count(id) != 0; });
}

Client *Bus::find_client(uint32_t id) const {
    const auto found = clients_.find(id);
    return found == clients_.end() ? nullptr : found->second;
}

Object *Bus::find_object(uint32_t id) {
    const auto found = objects_.find(id);
    return found == objects_.end() ? nullptr : found->second.get();
}

Object *Bus::find_own_object(const Client &client, const blob_attr *id) {
    Object *object = id ? find_object(blob_get_u32(id)) : nullptr;
    return object && object->owner == client.id ? object : nullptr;
}

void Bus::join(Client &client) {
    clients_[client.id] = &client;
    client.send(FrameBuilder().finish(UBUS_MSG_HELLO, 0, client.id));
}

void Bus::leave(Client &client) {
    const std::vector<uint32_t> objects(client.objects.rbegin(), client.objects.rend());

    clients_.erase(client.id);
    for (uint32_t id : objects)
        remove_object(id);
}

std::vector<const Object *> Bus::lookup(std::string_view path) const {
    std::vector<const Object *> found;

    if (path.empty() || path.back() != '*') {
        if (const auto entry = paths_.find(path); entry != paths_.end())
            found.push_back(entry->second);
        return found;
    }
    path.remove_suffix(1);
    for (auto entry = paths_.lower_bound(path); entry != paths_.end(); ++entry) {
        if (entry->first.compare(0, path.size(), path) != 0)
            break;
        found.push_back(entry->second);
    }
    return found;
}

std::shared_ptr<ObjectType> Bus::find_type(uint32_t id) const {
    const auto found = types_.find(id);
    return found == types_.end() ? nullptr : found->second.lock();
}

std::shared_ptr<ObjectType> Bus::add_type(std::vector<uint8_t> signature) {
    for (auto entry = types_.begin(); entry != types_.end();)
        entry = entry->second.expired() ? types_.erase(entry) : std::next(entry);

    auto type = std::make_shared<ObjectType>();
    type->id = new_id([this](uint32_t id) { return types_.count(id) != 0; });
    type->signature = std::move(signature);
    types_[type->id] = type;
    return type;
}

Object *Bus::add_object(Client &owner, std::string path, std::shared_ptr<ObjectType> type) {
    if (!path.empty() && paths_.count(path))
        return nullptr;

    auto object = std::make_unique<Object>();
    object->id = new_id([this](uint32_t id) { return objects_.count(id) != 0; });
    object->owner = owner.id;
    object->path = std::move(path);
    object->type = std::move(type);

    Object *added = object.get();
    owner.objects.push_back(added->id);
    objects_[added->id] = std::move(object);
    if (!added->path.empty())
        paths_[added->path] = added;
    announce(*added, "ubus.object.add");
    return added;
}

void Bus::remove_object(uint32_t id) {
    const auto found = objects_.find(id);
    if (found == objects_.end())
        return;
    // Off the bus first: nobody who is told now can reach it any more.
    const std::unique_ptr<Object> object = std::move(found->second);
    objects_.erase(found);
    if (!object->path.empty())
        paths_.erase(object->path);
    if (Client *owner = find_client(object->owner))
        std::erase(owner->objects, id);

    for (uint32_t target_id : object->targets)
        if (Object *target = find_object(target_id);
            target && erase_one(target->subscribers, id) && target->subscribers.empty())
            tell_activity(*target, false);
    for (uint32_t subscriber_id : object->subscribers) {
        Object *subscriber = find_object(subscriber_id);
        Client *client = subscriber ? find_client(subscriber->owner) : nullptr;
        if (!client)
            continue;
        std::erase(subscriber->targets, id);
        FrameBuilder builder;
        builder.put(UBUS_ATTR_OBJID, subscriber_id);
        builder.put(UBUS_ATTR_TARGET, id);
        client->send(builder.finish(UBUS_MSG_UNSUBSCRIBE, 0, 0));
    }
    announce(*object, "ubus.object.remove");
}

void Bus::subscribe(Object &subscriber, Object &target) {
    subscriber.targets.push_back(target.id);
    target.subscribers.push_back(subscriber.id);
    if (target.subscribers.size() == 1)
        tell_activity(target, true);
}

bool Bus::unsubscribe(Object &subscriber, Object &target) {
    if (!erase_one(subscriber.targets, target.id))
        return false;
    erase_one(target.subscribers, subscriber.id);
    if (target.subscribers.empty())
        tell_activity(target, false);
    return true;
}

// The first subscriber has come, or the last one has gone.
void Bus::tell_activity(const Object &target, bool active) {
    Client *owner = find_client(target.owner);
    if (!owner)
        return;
    FrameBuilder builder;
    builder.put(UBUS_ATTR_OBJID, target.id);
    builder.put_flag(UBUS_ATTR_ACTIVE, active);
    owner->send(builder.finish(UBUS_MSG_NOTIFY, 0, 0));
}

void Bus::announce(const Object &object, const char *event) {
    if (object.path.empty())
        return;
    blob_buf data{};
    if (blob_buf_init(&data, 0) == 0 && blobmsg_add_u32(&data, "id", object.id) == 0 &&
        blobmsg_add_string(&data, "path", object.path.c_str()) == 0)
        send_event(0, event, data.head);
    blob_buf_free(&data);
}

void Bus::send_event(uint32_t sender, const std::string &name, const blob_attr *data) {
    for (const auto &[id, object] : objects_) {
        Client *client = object->owner == sender ? nullptr : find_client(object->owner);
        const auto matches = [&name](const EventPattern &pattern) { return pattern.matches(name); };
        if (!client || client->over() ||
            !std::any_of(object->patterns.begin(), object->patterns.end(), matches))
            continue;
        FrameBuilder builder;
        builder.put(UBUS_ATTR_OBJID, id);
        builder.put(UBUS_ATTR_METHOD, name);
        builder.put_flag(UBUS_ATTR_NO_REPLY, true);
        builder.put_content(UBUS_ATTR_DATA, data);
        client->send(builder.finish(UBUS_MSG_INVOKE, 0, 0));
    }
}

}  // namespace arvok
