#pragma once
/// The cloud connection's frame: "QZSGWMP2", u32 length in network byte order, and a body of that length,
/// which is 1 to max_body bytes of base64 text with CR LF at its end. What the text encodes is JSON,
/// encrypted as the status of the connection asks for.

#include <cstdint>
#include <vector>

#include "cloud_client/cloud_client.h"

namespace arvok {

constexpr int cc_header_size = 12;

/// The whole frame of a text of `len` characters. Empty, after a log line, when it cannot be built. The
/// length limit binds the receiver only.
std::vector<char> cc_frame_encode(const cloud_client &client, const char *text, int len);

/// The body length that a header of cc_header_size bytes announces, or 0 after the log lines that say why
/// not.
int cc_frame_body_length(const void *header);

/// The plain text of a body of `len` bytes, which is changed and terminated by one more; `text_len` receives
/// its length. Null, after a log line where there is something to say, when the message is to be dropped.
text_ptr cc_frame_body_text(const cloud_client &client, char *body, int len, int &text_len);

}  // namespace arvok
