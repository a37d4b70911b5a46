/// The operator's cloud platform: a bootstrap server and business servers, each a listening socket of its
/// own, all of one mind about the devices. Every server serves every message; the bootstrap server is only
/// the one that devices begin with.
///
/// Of one connection, in order: "Boot" is answered with the business servers to go to; "GetChallengeCode"
/// with a code; "Activate", which has to hold that code, with an identity; "Connect", which has to hold both,
/// with the key that the connection uses from then on; "Heartbeat" by a plain acknowledgement. Messages up to
/// Connect are encrypted with the platform's public key, and their acknowledgements with a key that they
/// bring along; GetChallengeCode and its acknowledgement are not encrypted at all. A connection that breaks
/// the protocol is closed, and only that one.
///
/// What an acknowledgement says when it leaves, changed by a fault or not, is what the cloud goes by
/// afterwards.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection.h"
#include "crypto.h"
#include "faults.h"
#include "frame.h"
#include "json.h"
#include "keylog.h"
#include "listener.h"
#include "loop.h"
#include "registry.h"
#include "statistics.h"
#include "traffic.h"

namespace arvok::lab {

/// What the cloud can do wrong.
extern const FaultVocabulary cloud_faults;

struct Endpoint {
    std::string address, port;
};

struct CloudSettings {
    Endpoint bss{"100.64.0.1", "8088"};
    std::vector<Endpoint> business;
};

/// How a message is sent on somebody's behalf.
struct SendOptions {
    std::string
        mac;  ///< the device meant; empty: that of the newest connection; "all": each that is connected
    Pace pace;
    int repeat = 1;               ///< copies in one write
    std::optional<bool> encrypt;  ///< nothing: as the device expects it at this moment
};

class Cloud {
  public:
    Cloud(const CloudSettings &settings, PlatformKey key, Traffic &traffic, Faults &faults,
          const KeyLog &keys);
    ~Cloud();

    /// Opens or closes the listening sockets, as the armed faults want them. False, with errno, when one
    /// cannot be opened; `failed_server` names it then.
    bool update_listening();
    std::string failed_server() const { return failed_server_; }

    /// Turns a server, or all when `server` is empty, on or off: one that is off has no connections and takes
    /// none. False as above.
    bool turn(std::string_view server, bool on);

    /// True when a server goes by this name: "ADDRESS" or "ADDRESS:PORT".
    bool has_server(std::string_view name) const;

    /// Sends a message as it is; the number of the connection that it went out on, or nothing when there is
    /// none. `request` goes to devices only that have come to the end of the handshake.
    std::optional<int> send(json_ptr message, const SendOptions &options);
    std::optional<int> request(json_ptr message, const std::string &mac);
    /// Puts bytes on the newest connection as they are; false when nobody is connected.
    bool send_raw(std::string bytes, const Pace &pace);

    /// What Boot names ("business") and which notifications are acknowledged ("acknowledge"); false when the
    /// change is none, and nothing is changed then.
    bool change(const cJSON *change);
    json_ptr settings() const;

    /// Forgets a device, or all when `mac` is empty; false when there is none such.
    bool forget(const std::string &mac) { return registry_.forget(mac); }

    /// What there is to say about the newest connection and the servers, and about the devices.
    json_ptr describe() const;
    json_ptr devices() const { return registry_.describe(); }
    /// Numbers: what has passed, and how many connections are open, by state and by server.
    /// On request also `segments`, which are asked of each connection.
    json_ptr statistics(bool with_segments) const;

    /// Called with every reply of a device, and when a connection has ended.
    std::function<void(int connection, const cJSON *reply)> on_reply;
    std::function<void(int connection)> on_ended;

  private:
    enum class State { open, boot, challenge, activating, connecting, connected };
    enum class Cipher { plain, rsa, client_key, server_key };
    static const char *word_of(State state);
    static const char *word_of(Cipher cipher);

    struct Server {
        std::string role;
        Listener listener;
        bool on = true;

        std::string name() const { return listener.address() + ":" + listener.port(); }
        bool is(std::string_view named) const { return named == listener.address() || named == name(); }
    };

    /// One connection and how far the device on it has come.
    struct Link {
        int number = 0;
        std::string address;
        std::string ends;  ///< for the key log
        const Server *server = nullptr;
        State state = State::open;
        FrameReader reader;
        std::string client_key, server_key;
        std::string mac;  ///< as the device gave it
        std::int64_t heartbeats = 0, received = 0, sent = 0;
        std::unique_ptr<Connection> connection;
    };

    /// A message of the devices': how it arrives, what becomes of the connection, and its acknowledgement.
    struct Method {
        const char *name;
        Cipher cipher;
        std::optional<State> state;
        void (Cloud::*fill)(Link &, Device &, const cJSON *message, cJSON *ack);
        void (*take_effect)(Link &, Device &, const cJSON *ack);  ///< null: it has none
    };
    static const Method methods[];
    static const Method *find_method(const char *name);

    Link *newest(const std::string &mac, bool connected_only) const;
    void arrived(const Server &server, int descriptor, const sockaddr_in &remote);
    void received(Link &link, std::string_view bytes);
    void receive_body(Link &link, const std::string &body);
    json_ptr open_message(const Link &link, const std::string &bytes, Cipher &cipher) const;
    void handle(Link &link, const cJSON *message, Cipher cipher);
    bool take_client_key(Link &link, const cJSON *message);
    void acknowledge(Link &link, Device &device, const Method &method, const cJSON *message);

    void fill_boot(Link &, Device &, const cJSON *message, cJSON *ack);
    void fill_challenge(Link &, Device &, const cJSON *message, cJSON *ack);
    void fill_activate(Link &, Device &, const cJSON *message, cJSON *ack);
    void fill_connect(Link &, Device &, const cJSON *message, cJSON *ack);
    void fill_heartbeat(Link &, Device &, const cJSON *message, cJSON *ack);
    void fill_notification(Link &, Device &, const cJSON *message, cJSON *ack);
    bool is_acknowledged(const char *method) const;

    /// A message made ready for the wire.
    struct Packed {
        json_ptr message;  ///< as it leaves; null when nothing of it will arrive
        std::string bytes;
        Pace pace;
    };
    Packed pack(Link &link, json_ptr message, std::string_view answered, Cipher cipher);
    std::string frame_of(const Link &link, const cJSON *message, Cipher cipher, const Fault *fault);
    static Cipher cipher_towards(const Link &link);
    std::optional<int> send_on(Link *link, json_ptr message, const SendOptions &options);
    std::optional<int> send_to_all(const cJSON *message, const SendOptions &options);
    void record(Direction direction, const Link &link, Cipher cipher, std::size_t length,
                const cJSON *message);
    void protocol_error(Link &link, const std::string &what);
    void end(Link &link, const std::string &why);

    PlatformKey key_;
    Traffic &traffic_;
    Faults &faults_;
    const KeyLog &keys_;
    Registry registry_;
    Statistics statistics_;
    json_ptr settings_;
    std::vector<std::unique_ptr<Server>> servers_;  ///< the bootstrap server first
    std::string failed_server_;
    Timer sweep_;  ///< frees ended links outside of their own callbacks
    std::vector<std::unique_ptr<Link>> links_;
    int accepted_ = 0;
};

}  // namespace arvok::lab
