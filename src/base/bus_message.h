#pragma once
/// Messages of the bus: tables that are built field by field, and their rendering as JSON.

extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"

namespace arvok {

/// The table as compact JSON text; nothing for null and for what cannot be rendered.
std::optional<std::string> json_of(blob_attr *message);

/// Writes the members of a message into the object that is open, in their order: what may be long needs no
/// other copy. False when one of them cannot be rendered, or there are more than 48 levels; what has been
/// written until then is the caller's to take back.
bool write_members(json::writer &to, blob_attr *message);
/// The same as the member of that name. False with nothing written when it cannot be rendered.
bool write_message(json::writer &to, const char *name, blob_attr *message);

class bus_message {
  public:
    bus_message();
    ~bus_message();
    bus_message(const bus_message &) = delete;
    bus_message &operator=(const bus_message &) = delete;

    void text(const char *name, std::string_view characters);
    /// A literal, or a text of a platform record: null is "".
    void text(const char *name, const char *characters);
    void number(const char *name, std::int32_t n);

    /// Adds the members of a JSON object. False when the bus cannot take them.
    bool add_json(const std::string &object);

    /// The message so far, borrowed.
    blob_attr *get() const { return buffer_.head; }

    class nest;
    class table;
    class array;

  private:
    blob_buf buffer_{};
};

/// How a command ended, in its reply: "FailReason" and then "Status".
void add_outcome(bus_message &reply, std::string_view reason, std::string_view status);

/// A table or an array inside a message: what is added while it lives goes into it. Nested ones end in the
/// reverse order; a member of an array has no name.
class bus_message::nest {
  public:
    ~nest();
    nest(const nest &) = delete;
    nest &operator=(const nest &) = delete;

  protected:
    nest(bus_message &message, const char *name, bool array);

  private:
    blob_buf &buffer_;
    void *cookie_;
};

class bus_message::table : nest {
  public:
    explicit table(bus_message &message, const char *name = nullptr) : nest(message, name, false) {}
};

class bus_message::array : nest {
  public:
    array(bus_message &message, const char *name) : nest(message, name, true) {}
};

}  // namespace arvok
