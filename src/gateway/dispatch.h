#pragma once
/// The link's messages by type, and what follows their handlers: the reply, then what the device is to do.

#include "gateway/connection.h"
#include "gateway/negotiation.h"
#include "gateway/reports.h"
#include "gateway/request.h"

namespace arvok::gateway {

class dispatcher {
  public:
    dispatcher(const request_services &services, connection &link, negotiation &negotiating,
               reports &reporting)
        : services_(services), link_(link), negotiation_(negotiating), reports_(reporting) {}

    /// Runs a message of the gateway, sends its reply and carries out the device actions that it asked for.
    void take(json::view message);
    /// Runs a request that came through the cloud. Its reply; none when it was not handled, and for "qlink".
    /// Its actions wait. Nothing when the reply follows later.
    std::optional<json::value> take_from_cloud(json::view message);

    void forget_actions() { actions_ = 0; }
    /// Resets or restarts the device when the last message asked for that.
    void run_actions() const;

  private:
    // The gateway's answers: whether they consumed the message.
    bool handle_keyngack(json::view answer);
    bool handle_dh(json::view answer);
    bool handle_ack(json::view answer);

    struct answer_row;
    static const answer_row answers[];

    bool run(request &r);
    void send_first_reports();
    void switch_to_bridge(const request &r) const;

    const request_services services_;
    connection &link_;
    negotiation &negotiation_;
    reports &reports_;
    std::uint32_t actions_ = 0;     ///< action_bit of the last message
    bool reports_pending_ = false;  ///< the first reports wait for the registration's acknowledgement
};

}  // namespace arvok::gateway
