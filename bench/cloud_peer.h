#pragma once
/// The cloud platform for the benchmarks and the soak: a bootstrap and a business server, blocking and fast.
/// Whatever the agent does unexpectedly ends the program with a message.

#include <chrono>
#include <optional>
#include <string>

#include "base/json.h"
#include "development_key.h"
#include "home.h"
#include "lab/cloud/crypto.h"

namespace arvok::bench {

extern const char bootstrap_server[];  // for the agent's -b, which makes it forget its identity

class platform {
  public:
    using steady = std::chrono::steady_clock;
    using seconds = std::chrono::duration<double>;
    /// How a message is encrypted.
    enum class cipher { plain, rsa, aes };
    /// What the platform knows of the device.
    enum class device { unknown, known };

    /// Takes the agent's next connection and answers it until its first heartbeat is answered. Returns how
    /// much of the time has gone into decryption and answers here. `take_known` does not wait for the agent:
    /// false when it is not there yet.
    seconds enrol(device known_as);
    bool take_known();
    void hang_up() { link_.reset(); }
    bool connected() const { return link_.has_value(); }

    /// One round trip; heartbeats that come in between are answered. Returns the answer's frame.
    std::string round_trip(const std::string &request);
    /// Answers the heartbeats that have come; everything else is passed over.
    void serve();

    std::string encode(const json::value &message, cipher how) const;
    json::document decode(const std::string &frame, cipher how) const;
    /// A message of the gateway link as the platform sends it.
    std::string wrapped(const std::string &text) const;

  private:
    void bootstrap();
    void challenge();
    template <typename Fill>
    void exchange(connection &link, const char *method, cipher how, Fill fill);
    bool answer_heartbeat(const std::string &frame);

    const lab::PlatformKey key_ = lab::PlatformKey::read(lab::development_key).value();
    listener bootstrap_{"100.64.0.1", "8088"};
    listener business_{"100.64.0.2", "8088"};
    std::optional<connection> link_;
    std::string client_key_;
    std::size_t heartbeat_size_ = 0;
    seconds own_time_{};
};

}  // namespace arvok::bench
