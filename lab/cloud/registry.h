/// The devices that the platform has heard of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "json.h"

namespace arvok::lab {

struct Device {
    std::string mac;
    std::size_t number = 0;         ///< how many were known before it
    std::string dev_id, dev_token;  ///< empty until it is activated
    std::string challenge;          ///< the code handed out last; used up by an Activate or Connect
    json_ptr facts;                 ///< what it last said of itself: the members of its messages as they are
    int connection = 0;             ///< the one that its last message came on; 0: that one has ended
    bool connected = false;
    std::int64_t boots = 0, activations = 0, connects = 0, heartbeats = 0;
    std::string last_heartbeat;  ///< time of day

    bool registered() const { return !dev_id.empty(); }
};

class Registry {
  public:
    /// The device with this MAC, new when it is unknown; null when there are too many already.
    Device *device(const std::string &mac);
    Device *find(const std::string &mac);

    /// Forgets one device, or all when `mac` is empty; false when there is none such.
    bool forget(const std::string &mac);

    /// A connection has ended that was last the device's of this MAC.
    void ended(const std::string &mac, int connection);

    /// How many are connected.
    std::size_t connected() const;

    /// All of them, as array "devices" of an object.
    json_ptr describe() const;

  private:
    std::map<std::string, Device> devices_;
};

/// Keeps what a device says of itself; keys, challenges and the envelope are left out.
void remember_facts(Device &device, const cJSON *message);

}  // namespace arvok::lab
