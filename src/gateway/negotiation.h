#pragma once
/// Key agreement and registration, on every new connection:
///
///   -> keyngreq            <- keyngack   plain
///   -> dh (p, g, public)   <- dh         plain
///   -> dev_reg             <- ack        encrypted, as is everything from here on
///
/// Each message has its deadline. Those of "dh" and "dev_reg" are armed inside a handler, and the dispatcher
/// takes them back as soon as that handler returns: a gateway that falls silent behind "dev_reg" is found out
/// by the keepalives, one that does so behind "dh" only when it hangs up or is gone. A gateway that asks for
/// more than four negotiations in ten seconds, or sends a public value outside of the group, is disconnected.

#include <deque>

#include "base/key_exchange.h"
#include "gateway/connection.h"

namespace arvok::gateway {

class negotiation {
  public:
    negotiation(connection &link, platform::cache &cache, link_state &state)
        : link_(link), cache_(cache), state_(state) {}

    /// Sends the key request that opens every connection.
    void request_key();
    /// Forgets the exchange with its private value: the connection has ended.
    void forget();

    // Handlers of the gateway's answers: whether they consumed the message.
    bool handle_keyngack(json::view answer);
    bool handle_dh(json::view answer);

  private:
    json::value registration_data() const;
    bool is_too_often();

    connection &link_;
    platform::cache &cache_;
    link_state &state_;
    key_exchange exchange_;
    std::deque<long> begun_;  ///< uptimes of the latest negotiations on this connection
};

}  // namespace arvok::gateway
