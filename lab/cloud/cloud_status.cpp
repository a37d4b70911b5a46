// What there is to say about the platform.

#include <array>

#include "cloud.h"

namespace arvok::lab {

json_ptr Cloud::describe() const {
    json_ptr reply(cJSON_CreateObject());
    cJSON *root = reply.get();
    const Link *link = newest("", false);
    const auto text = [root](const char *name, const std::string &value) {
        cJSON_AddStringToObject(root, name, value.c_str());
    };
    const auto number = [root](const char *name, auto value) {
        cJSON_AddNumberToObject(root, name, static_cast<double>(value));
    };
    cJSON_AddBoolToObject(root, "connected", link != nullptr);
    text("state", link ? word_of(link->state) : "idle");
    if (link) {
        number("connection", link->number);
        text("server", link->server->name());
        text("address", link->address);
        text("mac", link->mac);
        text("client_key", link->client_key);
        text("server_key", link->server_key);
        number("heartbeats", link->heartbeats);
        number("received", link->received);
        number("sent", link->sent);
    }
    number("connections", accepted_);
    cJSON *servers = cJSON_AddArrayToObject(root, "servers");
    for (const auto &server : servers_) {
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddStringToObject(entry, "server", server->name().c_str());
        cJSON_AddStringToObject(entry, "role", server->role.c_str());
        cJSON_AddBoolToObject(entry, "listening", server->listener.listening());
        cJSON_AddItemToArray(servers, entry);
    }
    text("faults", faults_.describe());
    return reply;
}

json_ptr Cloud::statistics(bool with_segments) const {
    json_ptr reply(cJSON_CreateObject());
    statistics_.describe(reply.get());
    cJSON_AddNumberToObject(reply.get(), "connected", static_cast<double>(registry_.connected()));
    if (with_segments) {
        Segments all = statistics_.segments();
        for (const auto &link : links_)
            if (link->connection->open()) {
                const Segments segments = link->connection->segments();
                all.received += segments.received;
                all.sent += segments.sent;
            }
        cJSON *entry = cJSON_AddObjectToObject(reply.get(), "segments");
        cJSON_AddNumberToObject(entry, "received", static_cast<double>(all.received));
        cJSON_AddNumberToObject(entry, "sent", static_cast<double>(all.sent));
    }
    cJSON *servers = cJSON_AddArrayToObject(reply.get(), "servers");
    for (const auto &server : servers_) {
        std::array<int, 6> states{};
        for (const auto &link : links_)
            if (link->server == server.get() && link->connection->open())
                states[static_cast<std::size_t>(link->state)]++;
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddStringToObject(entry, "server", server->name().c_str());
        cJSON_AddBoolToObject(entry, "listening", server->listener.listening());
        for (std::size_t state = 0; state < states.size(); state++)
            cJSON_AddNumberToObject(entry, word_of(static_cast<State>(state)), states[state]);
        cJSON_AddItemToArray(servers, entry);
    }
    return reply;
}

}  // namespace arvok::lab
