#include "frame.h"

#include <cstring>

#include "protocol.h"

namespace arvok {

size_t frame_size(const uint8_t *header) {
    ubus_msghdr head;
    blob_attr body;

    std::memcpy(&head, header, sizeof(head));
    std::memcpy(&body, header + sizeof(head), sizeof(body));
    const size_t length = blob_raw_len(&body);
    if (head.version != 0 || length < sizeof(body) || length > MAX_MESSAGE)
        return 0;
    return sizeof(head) + length;
}

Message read_message(std::vector<uint8_t> &bytes) {
    static const auto info = [] {
        std::array<blob_attr_info, UBUS_ATTR_MAX> types{};
        for (int id : {UBUS_ATTR_STATUS, UBUS_ATTR_OBJID, UBUS_ATTR_OBJTYPE, UBUS_ATTR_TARGET})
            types[static_cast<size_t>(id)].type = BLOB_ATTR_INT32;
        for (int id : {UBUS_ATTR_OBJPATH, UBUS_ATTR_METHOD})
            types[static_cast<size_t>(id)].type = BLOB_ATTR_STRING;
        for (int id : {UBUS_ATTR_SIGNATURE, UBUS_ATTR_DATA})
            types[static_cast<size_t>(id)].type = BLOB_ATTR_NESTED;
        types[UBUS_ATTR_NO_REPLY].type = BLOB_ATTR_INT8;
        return types;
    }();
    ubus_msghdr head;
    Message message;

    std::memcpy(&head, bytes.data(), sizeof(head));
    message.type = head.type;
    message.seq = be16toh(head.seq);
    message.peer = be32toh(head.peer);
    message.body = reinterpret_cast<blob_attr *>(bytes.data() + sizeof(head));
    message.bytes = &bytes;
    blob_parse_untrusted(message.body, bytes.size() - sizeof(head), message.attributes.data(), info.data(),
                         UBUS_ATTR_MAX);
    return message;
}

Frame forward(const Message &message, uint32_t peer) {
    auto copy = std::make_shared<std::vector<uint8_t>>(*message.bytes);
    const uint32_t wire = htobe32(peer);

    std::memcpy(copy->data() + offsetof(ubus_msghdr, peer), &wire, sizeof(wire));
    return copy;
}

FrameBuilder::FrameBuilder() {
    fits_ = blob_buf_init(&buffer_, 0) == 0;
}

FrameBuilder::~FrameBuilder() {
    blob_buf_free(&buffer_);
}

void FrameBuilder::put(int id, uint32_t value) {
    fits_ = fits_ && blob_put_int32(&buffer_, id, value);
}

void FrameBuilder::put_flag(int id, bool value) {
    fits_ = fits_ && blob_put_int8(&buffer_, id, value);
}

void FrameBuilder::put(int id, const std::string &text) {
    fits_ = fits_ && blob_put_string(&buffer_, id, text.c_str());
}

void FrameBuilder::put_content(int id, const blob_attr *attr) {
    if (attr)
        fits_ = fits_ && blob_put(&buffer_, id, blob_data(attr), static_cast<unsigned int>(blob_len(attr)));
}

void FrameBuilder::put_bytes(int id, const std::vector<uint8_t> &content) {
    fits_ = fits_ && blob_put(&buffer_, id, content.data(), static_cast<unsigned int>(content.size()));
}

Frame FrameBuilder::finish(uint8_t type, uint16_t seq, uint32_t peer) const {
    if (!fits_ || blob_raw_len(buffer_.head) > MAX_MESSAGE)
        return nullptr;
    ubus_msghdr head{};
    head.type = type;
    head.seq = htobe16(seq);
    head.peer = htobe32(peer);
    auto bytes = std::make_shared<std::vector<uint8_t>>(sizeof(head) + blob_raw_len(buffer_.head));
    std::memcpy(bytes->data(), &head, sizeof(head));
    std::memcpy(bytes->data() + sizeof(head), buffer_.head, blob_raw_len(buffer_.head));
    return bytes;
}

Frame status_frame(uint16_t seq, uint32_t peer, int status) {
    FrameBuilder builder;
    builder.put(UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    return builder.finish(UBUS_MSG_STATUS, seq, peer);
}

}  // namespace arvok
