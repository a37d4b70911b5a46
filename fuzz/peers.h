#pragma once
/// Who is on the other side of the agent's connections: the frames of each protocol, and its keys. A peer
/// knows the state of its connection by what the agent has sent: in which key the last message was readable.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/crypto.h"
#include "machine.h"

namespace arvok::fuzz {

/// Ends the process when the agent has done what it must not do.
void require(bool holds, const char *what);

/// One byte of a text, 0 beyond its end.
inline unsigned char byte_at(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

/// A frame is a magic text, a u32 length in network byte order, and a body.
class Peer {
  public:
    Peer(side of, std::string_view magic) : of_(of), magic_(magic) {}
    virtual ~Peer() = default;

    side of() const { return of_; }
    /// Our end of the newest connection, -1 for none.
    int descriptor() const { return newest_far_end(of_); }
    /// The agent has not closed it.
    bool is_open() const;
    /// The agent may wait for this peer without a timer.
    virtual bool may_be_waited_for() const { return false; }

    /// A line of a script as the bytes that go to the agent.
    virtual std::string message(std::string_view line) = 0;
    /// Deals with what the agent has sent. False when there was nothing.
    bool take_answers();

    /// Answers arrive in the state in which they were sent, so that their keys are known. No longer after raw
    /// bytes, which may hold several messages, and after answers that were left waiting.
    bool at_once = true;

  protected:
    std::string frame(std::string_view body) const;
    /// The body of a whole frame.
    virtual void answered(const std::string &body) = 0;

  private:
    const side of_;
    const std::string_view magic_;
    int taken_from_ = -1;
    std::string inbox_;
};

class GatewayPeer : public Peer {
  public:
    GatewayPeer() : Peer(side::gateway, "\x3f\x72\x1f\xb5") {}
    /// Before a key is agreed.
    bool may_be_waited_for() const override { return is_open() && !key_; }
    /// Encrypted when the link is; with '=' it goes in clear.
    std::string message(std::string_view line) override;

  private:
    void answered(const std::string &body) override;

    std::optional<aes_key> key_, offered_;
};

class CloudPeer : public Peer {
  public:
    CloudPeer() : Peer(side::cloud, "QZSGWMP2") {}
    /// Encrypted as the stage asks for; with '=' it goes in clear base64, with '#' it is the frame's body as
    /// it stands.
    std::string message(std::string_view line) override;

  private:
    enum class cipher { none, client_key, server_key };

    std::string encrypted(std::string_view text) const;
    void answered(const std::string &body) override;

    cipher cipher_ = cipher::client_key;
    aes_key key_{}, offered_{};
};

/// A client on the LAN.
class ClientPeer : public Peer {
  public:
    ClientPeer() : Peer(side::client, "") {}
    bool may_be_waited_for() const override { return true; }
    /// With '=' it is the command inside a request.
    std::string message(std::string_view line) override;

  private:
    void answered(const std::string &body) override;
};

}  // namespace arvok::fuzz
