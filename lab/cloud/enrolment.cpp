// What the platform answers to the devices' messages, and what that changes.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "cloud.h"

namespace arvok::lab {
namespace {

enum Result { unknown_device = -2, refused = -1 };

constexpr std::size_t challenge_size = 32;
constexpr std::size_t token_size = 32;
constexpr std::size_t named_servers = 2;

void refuse(cJSON *ack, Result result, const char *reason) {
    cJSON_AddNumberToObject(ack, "Result", result);
    cJSON_AddStringToObject(ack, "FailReason", reason);
}

std::string text_of(const cJSON *object, const char *name) {
    const char *text = string_member(object, name);
    return text ? text : "";
}

// A code is good once.
bool passes_challenge(Device &device, const cJSON *message) {
    const std::string code = std::exchange(device.challenge, "");
    return !code.empty() && code == text_of(message, "ChallengeCode");
}

// "HOST:PORT" as a member of BizPlat; null when it is none.
json_ptr named_server(const char *text) {
    const char *colon = std::strrchr(text, ':');
    char *end = nullptr;
    const long port = colon ? std::strtol(colon + 1, &end, 10) : 0;
    if (!colon || colon == text || end == colon + 1 || *end || port < 1 || port > 65535)
        return nullptr;
    json_ptr entry(cJSON_CreateObject());
    cJSON_AddStringToObject(entry.get(), "ServerAddr", std::string(text, colon).c_str());
    cJSON_AddNumberToObject(entry.get(), "ServerPort", static_cast<double>(port));
    return entry;
}

// The list as Boot names it, from "HOST:PORT" texts and objects that go out as they are; null when one is
// neither.
json_ptr named_servers_of(const cJSON *list) {
    if (!cJSON_IsArray(list))
        return nullptr;
    json_ptr named(cJSON_CreateArray());
    const cJSON *element = nullptr;
    cJSON_ArrayForEach(element, list) {
        json_ptr entry = cJSON_IsObject(element)   ? json_ptr(cJSON_Duplicate(element, 1))
                         : cJSON_IsString(element) ? named_server(element->valuestring)
                                                   : nullptr;
        if (!entry)
            return nullptr;
        cJSON_AddItemToArray(named.get(), entry.release());
    }
    return named;
}

constexpr const char *notifications[] = {"InstallNotification", "PluginNotification"};

bool is_notification(const char *name) {
    return std::any_of(std::begin(notifications), std::end(notifications),
                       [name](const char *notification) { return !std::strcmp(notification, name); });
}

}  // namespace

const Cloud::Method Cloud::methods[] = {
    {"Boot", Cipher::rsa, State::boot, &Cloud::fill_boot, nullptr},
    {"GetChallengeCode", Cipher::plain, State::challenge, &Cloud::fill_challenge,
     [](Link &, Device &device, const cJSON *ack) { device.challenge = text_of(ack, "ChallengeCode"); }},
    {"Activate", Cipher::rsa, State::activating, &Cloud::fill_activate,
     [](Link &, Device &device, const cJSON *ack) {
         device.dev_id = text_of(ack, "DevID");
         device.dev_token = text_of(ack, "DevToken");
         device.activations++;
     }},
    {"Connect", Cipher::rsa, State::connecting, &Cloud::fill_connect,
     [](Link &link, Device &device, const cJSON *ack) {
         const std::string key = text_of(ack, "SKey");
         if (key.size() != aes_key_size)
             return;
         link.server_key = key;
         link.state = State::connected;
         device.connected = true;
         device.connects++;
     }},
    {"Heartbeat", Cipher::server_key, std::nullopt, &Cloud::fill_heartbeat, nullptr},
    {"InstallNotification", Cipher::server_key, std::nullopt, &Cloud::fill_notification, nullptr},
    {"PluginNotification", Cipher::server_key, std::nullopt, &Cloud::fill_notification, nullptr},
};

const Cloud::Method *Cloud::find_method(const char *name) {
    const Method *row = std::find_if(std::begin(methods), std::end(methods), [name](const Method &method) {
        return !std::strcmp(method.name, name);
    });
    return row == std::end(methods) ? nullptr : row;
}

void Cloud::fill_boot(Link &, Device &device, const cJSON *message, cJSON *ack) {
    remember_facts(device, message);
    device.boots++;
    cJSON_AddNumberToObject(ack, "Result", 0);
    cJSON *named = cJSON_DetachItemFromObject(settings().get(), "business");
    cJSON_AddItemToObject(ack, "BizPlat", named);
    // Each device begins with the server behind that of the one that was new before it.
    if (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(settings_.get(), "spread")))
        for (std::size_t turn =
                 device.number % static_cast<std::size_t>(std::max(cJSON_GetArraySize(named), 1));
             turn > 0; turn--)
            cJSON_AddItemToArray(named, cJSON_DetachItemFromArray(named, 0));
}

void Cloud::fill_challenge(Link &, Device &, const cJSON *, cJSON *ack) {
    cJSON_AddNumberToObject(ack, "Result", 0);
    cJSON_AddStringToObject(ack, "ChallengeCode", random_text(challenge_size).c_str());
}

void Cloud::fill_activate(Link &, Device &device, const cJSON *message, cJSON *ack) {
    remember_facts(device, message);
    if (!passes_challenge(device, message))
        return refuse(ack, refused, "wrong ChallengeCode");
    cJSON_AddNumberToObject(ack, "Result", 0);
    cJSON_AddStringToObject(ack, "DevID", ("SMARTAP-" + device.mac).c_str());
    cJSON_AddStringToObject(ack, "DevToken", random_text(token_size).c_str());
}

void Cloud::fill_connect(Link &, Device &device, const cJSON *message, cJSON *ack) {
    remember_facts(device, message);
    const bool answered = passes_challenge(device, message);
    if (!device.registered() || device.dev_id != text_of(message, "DevID") ||
        device.dev_token != text_of(message, "DevToken"))
        return refuse(ack, unknown_device, "unknown device");
    if (!answered)
        return refuse(ack, refused, "wrong ChallengeCode");
    cJSON_AddNumberToObject(ack, "Result", 0);
    cJSON_AddStringToObject(ack, "SKey", random_text(aes_key_size).c_str());
}

void Cloud::fill_heartbeat(Link &link, Device &device, const cJSON *message, cJSON *ack) {
    remember_facts(device, message);
    link.heartbeats++;
    device.heartbeats++;
    device.last_heartbeat = time_of_day();
    cJSON_AddNumberToObject(ack, "Result", 0);
}

void Cloud::fill_notification(Link &, Device &, const cJSON *, cJSON *ack) {
    cJSON_AddNumberToObject(ack, "Result", 0);
}

bool Cloud::is_acknowledged(const char *method) const {
    if (!is_notification(method))
        return true;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(
        entry, cJSON_GetObjectItemCaseSensitive(
                   settings_.get(), "acknowledge")) if (!std::strcmp(entry->valuestring, method)) return true;
    return false;
}

bool Cloud::change(const cJSON *change) {
    json_ptr next(cJSON_Duplicate(settings_.get(), 1));
    const auto take = [&next](const char *name, json_ptr value) {
        cJSON_DeleteItemFromObjectCaseSensitive(next.get(), name);
        cJSON_AddItemToObject(next.get(), name, value.release());
    };
    if (const cJSON *business = cJSON_GetObjectItemCaseSensitive(change, "business")) {
        json_ptr named = named_servers_of(business);
        if (!named)
            return false;
        take("business", std::move(named));
    }
    if (const cJSON *spread = cJSON_GetObjectItemCaseSensitive(change, "spread")) {
        if (!cJSON_IsBool(spread))
            return false;
        take("spread", json_ptr(cJSON_Duplicate(spread, 1)));
    }
    if (const cJSON *acknowledge = cJSON_GetObjectItemCaseSensitive(change, "acknowledge")) {
        const cJSON *entry = nullptr;
        cJSON_ArrayForEach(entry, acknowledge) if (!cJSON_IsString(entry) ||
                                                   !is_notification(entry->valuestring)) return false;
        if (!cJSON_IsArray(acknowledge))
            return false;
        take("acknowledge", json_ptr(cJSON_Duplicate(acknowledge, 1)));
    }
    settings_ = std::move(next);
    return true;
}

// Until something else is set, Boot names the first business servers, or the only server that there is.
json_ptr Cloud::settings() const {
    json_ptr all(cJSON_Duplicate(settings_.get(), 1));
    if (cJSON_HasObjectItem(all.get(), "business"))
        return all;
    cJSON *list = cJSON_AddArrayToObject(all.get(), "business");
    const std::size_t first = servers_.size() > 1 ? 1 : 0;
    for (std::size_t at = first; at < std::min(servers_.size(), first + named_servers); at++)
        cJSON_AddItemToArray(list, named_server(servers_[at]->name().c_str()).release());
    return all;
}

}  // namespace arvok::lab
