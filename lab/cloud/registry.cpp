#include "registry.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace arvok::lab {
namespace {

constexpr std::size_t most_devices = 100000;
constexpr int most_facts = 64;

// Members that say nothing about the device itself.
constexpr std::array<std::string_view, 7> passing{"RPCMethod", "MAC",      "CKey",     "ChallengeCode",
                                                  "DevID",     "DevToken", "bootstrap"};

json_ptr describe_one(const Device &device) {
    json_ptr entry(cJSON_CreateObject());
    cJSON *root = entry.get();
    const auto text = [root](const char *name, const std::string &value) {
        cJSON_AddStringToObject(root, name, value.c_str());
    };
    const auto number = [root](const char *name, std::int64_t value) {
        cJSON_AddNumberToObject(root, name, static_cast<double>(value));
    };
    text("mac", device.mac);
    text("state", device.connected ? "connected" : device.registered() ? "registered" : "seen");
    text("dev_id", device.dev_id);
    text("dev_token", device.dev_token);
    number("connection", device.connection);
    number("boots", device.boots);
    number("activations", device.activations);
    number("connects", device.connects);
    number("heartbeats", device.heartbeats);
    text("last_heartbeat", device.last_heartbeat);
    cJSON_AddItemToObject(root, "facts", cJSON_Duplicate(device.facts.get(), 1));
    return entry;
}

}  // namespace

Device *Registry::device(const std::string &mac) {
    if (Device *known = find(mac))
        return known;
    if (devices_.size() >= most_devices)
        return nullptr;
    const std::size_t known = devices_.size();
    Device &added = devices_[mac];
    added.mac = mac;
    added.number = known;
    added.facts.reset(cJSON_CreateObject());
    return &added;
}

Device *Registry::find(const std::string &mac) {
    const auto entry = devices_.find(mac);
    return entry == devices_.end() ? nullptr : &entry->second;
}

bool Registry::forget(const std::string &mac) {
    if (!mac.empty())
        return devices_.erase(mac) > 0;
    devices_.clear();
    return true;
}

void Registry::ended(const std::string &mac, int connection) {
    Device *device = find(mac);
    if (!device || device->connection != connection)
        return;
    device->connection = 0;
    device->connected = false;
}

std::size_t Registry::connected() const {
    return static_cast<std::size_t>(std::count_if(devices_.begin(), devices_.end(),
                                                  [](const auto &entry) { return entry.second.connected; }));
}

json_ptr Registry::describe() const {
    json_ptr reply(cJSON_CreateObject());
    cJSON *list = cJSON_AddArrayToObject(reply.get(), "devices");
    for (const auto &[mac, device] : devices_)
        cJSON_AddItemToArray(list, describe_one(device).release());
    return reply;
}

void remember_facts(Device &device, const cJSON *message) {
    for (const cJSON *member = message->child; member; member = member->next) {
        if (std::find(passing.begin(), passing.end(), member->string) != passing.end())
            continue;
        cJSON_DeleteItemFromObjectCaseSensitive(device.facts.get(), member->string);
        if (cJSON_GetArraySize(device.facts.get()) >= most_facts)
            return;
        cJSON_AddItemToObject(device.facts.get(), member->string, cJSON_Duplicate(member, 1));
    }
}

}  // namespace arvok::lab
