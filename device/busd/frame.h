// Messages as they stand on the wire: the header and the attributes that follow it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

namespace arvok {

/// A whole message, ready to be sent to any number of clients.
using Frame = std::shared_ptr<const std::vector<uint8_t>>;

/// The members of a message by UBUS_ATTR_*, null where absent or of the wrong type.
using Attributes = std::array<blob_attr *, UBUS_ATTR_MAX>;

/// The header in the order of the host, and the attributes, which lie in `bytes`.
struct Message {
    uint8_t type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    blob_attr *body = nullptr;
    Attributes attributes{};
    const std::vector<uint8_t> *bytes = nullptr;
};

inline constexpr size_t HEADER_SIZE = sizeof(ubus_msghdr) + sizeof(blob_attr);

/// The size of the whole message that begins with these HEADER_SIZE bytes; 0 when they cannot begin one.
size_t frame_size(const uint8_t *header);

/// Reads a whole message. `bytes` must outlive the result.
Message read_message(std::vector<uint8_t> &bytes);

/// The text of an attribute that is known to be one, cut at its first zero.
inline const char *text_of(const blob_attr *attr) {
    return static_cast<const char *>(blob_data(attr));
}

/// The same message under another peer.
Frame forward(const Message &message, uint32_t peer);

/// A message under construction.
class FrameBuilder {
  public:
    FrameBuilder();
    ~FrameBuilder();
    FrameBuilder(const FrameBuilder &) = delete;
    FrameBuilder &operator=(const FrameBuilder &) = delete;

    void put(int id, uint32_t value);
    void put_flag(int id, bool value);
    void put(int id, const std::string &text);
    /// A copy of the content of `attr` under this id; nothing when it is null.
    void put_content(int id, const blob_attr *attr);
    void put_bytes(int id, const std::vector<uint8_t> &content);

    /// For content that these calls do not cover.
    blob_buf *buffer() { return &buffer_; }

    /// Null when it does not fit into a message.
    Frame finish(uint8_t type, uint16_t seq, uint32_t peer) const;

  private:
    blob_buf buffer_{};
    bool fits_ = true;
};

/// The answer that ends a request.
Frame status_frame(uint16_t seq, uint32_t peer, int status);

}  // namespace arvok
