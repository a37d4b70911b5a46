/// The gateway's side of the link: listens, negotiates a key with every access point that connects,
/// acknowledges what arrives, and sends what it is told to. The newest connection is "the peer".
///
/// Of one connection, in order: "keyngreq" is answered by "keyngack"; "dh" by "dh", after which bodies are
/// encrypted in both directions; "dev_reg", "keepalive", reports and events by "ack". Anything else is taken
/// for a reply to a message that was sent from here. A connection that breaks the protocol is closed, and
/// only that one.
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
#include "traffic.h"

namespace arvok::lab {

/// What a gateway can do wrong.
extern const FaultVocabulary gateway_faults;

struct GatewaySettings {
    std::string address = "0.0.0.0";
    std::string port = "32768";
    std::string mac;  ///< empty: the MAC of the interface that a connection arrives on
};

/// How a message is sent on somebody's behalf.
struct SendOptions {
    Pace pace;
    int repeat = 1;               ///< copies, with consecutive sequences, in one write
    std::optional<bool> encrypt;  ///< nothing: encrypted when a key has been agreed
};

struct Sent {
    int connection;
    double sequence;  ///< of the last copy
};

class Gateway {
  public:
    Gateway(const GatewaySettings &settings, Traffic &traffic, Faults &faults, const KeyLog &keys);
    ~Gateway();

    /// Opens or closes the listening socket, as the armed faults want it. False, with errno, when it cannot
    /// be opened.
    bool update_listening();

    bool connected() const { return peer() != nullptr; }
    bool keyed() const { return connected() && peer()->key; }

    /// Completes the envelope ("sequence" and "mac" when absent) and sends `message` to the peer; nothing
    /// when nobody is connected.
    std::optional<Sent> send(json_ptr message, const SendOptions &options);
    /// Puts bytes on the peer's connection as they are; false when nobody is connected.
    bool send_raw(std::string bytes, const Pace &pace);

    /// What there is to say about the peer and the server.
    json_ptr describe() const;

    /// Called with every message that may be a reply, and when a connection has ended.
    std::function<void(int connection, const cJSON *reply)> on_reply;
    std::function<void(int connection)> on_ended;

  private:
    enum class State { connected, negotiating, keyed, registered, linked };
    static const char *word_of(State state);

    /// One connection and what has been negotiated on it.
    struct Link {
        int number = 0;
        std::string address;
        std::string ends;  ///< for the key log
        std::string own_mac;
        State state = State::connected;
        FrameReader reader;
        std::optional<LinkKey> key;
        std::string mac, link_mac;  ///< as the access point gave them
        std::int64_t keepalives = 0, received = 0, sent = 0;
        std::unique_ptr<Connection> connection;
    };

    struct Answer {
        const char *type;
        void (Gateway::*handler)(Link &, const cJSON *);
    };
    static const Answer answers[];

    Link *peer() const;
    void arrived(int descriptor, const sockaddr_in &remote);
    void received(Link &link, std::string_view bytes);
    void receive_body(Link &link, const std::string &body);
    void record(Direction direction, const Link &link, bool sealed, std::size_t length, const cJSON *message);
    void handle(Link &link, const cJSON *message);
    void answer_key_request(Link &link, const cJSON *message);
    void answer_key(Link &link, const cJSON *message);
    void answer_registration(Link &link, const cJSON *message);
    void answer_keepalive(Link &link, const cJSON *message);
    void acknowledge(Link &link, const cJSON *message);

    json_ptr envelope(const Link &link, const char *type, const cJSON *answered) const;
    bool answer(Link &link, json_ptr message, const cJSON *answered);
    bool pack(Link &link, json_ptr message, std::string_view answered, bool sealed, std::string &wire);
    void protocol_error(Link &link, const std::string &what);
    void end(Link &link, const std::string &why);

    const std::string mac_;
    Traffic &traffic_;
    Faults &faults_;
    const KeyLog &keys_;
    Listener listener_;
    Timer sweep_;  ///< frees ended links outside of their own callbacks
    std::vector<std::unique_ptr<Link>> links_;
    int accepted_ = 0;
    std::int64_t sequence_ = 1;
};

}  // namespace arvok::lab
