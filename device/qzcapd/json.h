/// JSON values with owners, and the few things the daemon does with them.
#ifndef ARVOK_QZCAPD_JSON_H
#define ARVOK_QZCAPD_JSON_H

#include <cjson/cJSON.h>

#include <memory>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace arvok::qzcapd {

struct FreeJson {
    void operator()(cJSON *value) const { cJSON_Delete(value); }
};
using json_ptr = std::unique_ptr<cJSON, FreeJson>;

/// A message buffer for the bus.
class Message {
  public:
    Message() { blob_buf_init(&buf_, 0); }
    ~Message() { blob_buf_free(&buf_); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    blob_buf *buf() { return &buf_; }
    blob_attr *head() const { return buf_.head; }

  private:
    blob_buf buf_{};
};

/// Parses a whole text; on failure null, and `error` tells the line.
json_ptr parse(const std::string &text, std::string *error);
/// Compact text.
std::string print(const cJSON *value);
json_ptr copy(const cJSON *value);

/// The member's value, or null.
cJSON *get(const cJSON *object, const std::string &name);
/// The member's text, or null when it is none.
const char *get_text(const cJSON *object, const std::string &name);
/// The member's number, or 0 when it is none.
double get_number(const cJSON *object, const std::string &name);

/// Sets or adds a member; an existing one keeps its place.
void put(cJSON *object, const std::string &name, json_ptr value);
void put_text(cJSON *object, const std::string &name, const std::string &text);
void put_number(cJSON *object, const std::string &name, double number);

/// RFC 7386, in place. Both must be objects.
void merge_patch(cJSON *target, const cJSON *patch);

/// A bus message as a JSON object; null when it cannot be rendered. A missing message is an empty object.
json_ptr from_blob(blob_attr *message);
/// Fills the message with a JSON object. False when that fails.
bool to_blob(const cJSON *object, Message *message);

}  // namespace arvok::qzcapd

#endif
